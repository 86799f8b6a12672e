// Feeds arbitrary bytes to the OSC packet decoder. Whatever decodes must survive encoding:
// a decoded message re-encodes to bytes that decode to the same message, and encoding that
// again gives the same bytes.

#include "osc/OSCMessage.h"

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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArrayView bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const auto messages = orvane::decodeOSCPacket(bytes);
    const auto single = orvane::decodeOSCMessage(bytes);
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
