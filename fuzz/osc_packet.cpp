// Feeds arbitrary bytes to the OSC packet decoder. Whatever decodes must survive encoding:
// a decoded message re-encodes to bytes that decode to the same message, and encoding that
// again gives the same bytes. No allocation may be larger than the bytes can justify: a
// message that is turned away allocates no more than a few copies of its bytes, so a count
// read from the packet (type tags, a blob's length) is never trusted before it is checked.

#include "osc/OSCMessage.h"

#include <sanitizer/allocator_interface.h>
// Weak, so a fuzz build without a sanitizer still links.
#pragma weak __sanitizer_install_malloc_and_free_hooks

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace {

// Messages compare equal only when no float is NaN (NaN never equals itself).
bool hasNaN(const orvane::OSCMessage& message)
{
    for (const auto& argument : message.arguments) {
        if (const auto* value = std::get_if<float>(&argument); value && std::isnan(*value))
            return true;
    }
    return false;
}

// The largest allocation while `watching`, seen through the sanitizer's allocator hook (only
// present in a sanitizer build; without one the bound is not checked).
bool watching = false;
std::size_t largest = 0;

void onMalloc(const volatile void*, std::size_t size)
{
    if (watching)
        largest = std::max(largest, size);
}

void onFree(const volatile void*) {}

const bool hooked = &__sanitizer_install_malloc_and_free_hooks != nullptr &&
                    __sanitizer_install_malloc_and_free_hooks(onMalloc, onFree) != 0;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArrayView bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    largest = 0;
    watching = true;
    const auto single = orvane::decodeOSCMessage(bytes);
    watching = false;
    // Text may be copied through UTF-16 and back; a message holds at most one argument per byte.
    const std::size_t bound =
        64 + size * (single ? std::max<std::size_t>(4, sizeof(orvane::OSCArgument)) : 4);
    if (hooked && largest > bound)
        std::abort();

    const auto messages = orvane::decodeOSCPacket(bytes);
    if (single && messages.size() != 1)
        std::abort();
    for (const auto& message : messages) {
        const QByteArray encoded = orvane::encodeOSC(message);
        if (encoded.size() % 4 != 0)
            std::abort();
        const auto again = orvane::decodeOSCMessage(encoded);
        if (!again)
            std::abort();
        if (!hasNaN(message) && !(*again == message))
            std::abort();
        if (orvane::encodeOSC(*again) != encoded)
            std::abort();
    }
    return 0;
}
