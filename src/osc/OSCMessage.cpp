#include "osc/OSCMessage.h"

#include <QString>

#include <cstring>
#include <limits>

namespace orvane {

namespace {

constexpr int kMaxBundleDepth = 7;
constexpr char kBundleHeader[8] = {'#', 'b', 'u', 'n', 'd', 'l', 'e', '\0'};

// Bytes a string of `length` takes on the wire: at least one zero, padded to 4.
constexpr qsizetype paddedStringSize(std::size_t length)
{
    return static_cast<qsizetype>((length + 4) & ~std::size_t(3));
}

constexpr qsizetype paddedBlobSize(qsizetype length)
{
    return 4 + ((length + 3) & ~qsizetype(3));
}

std::uint32_t readBigEndian32(const unsigned char* at)
{
    return (std::uint32_t(at[0]) << 24) | (std::uint32_t(at[1]) << 16) |
           (std::uint32_t(at[2]) << 8) | std::uint32_t(at[3]);
}

std::uint64_t readBigEndian64(const unsigned char* at)
{
    return (std::uint64_t(readBigEndian32(at)) << 32) | readBigEndian32(at + 4);
}

char* writeBigEndian32(char* to, std::uint32_t value)
{
    to[0] = static_cast<char>(value >> 24);
    to[1] = static_cast<char>(value >> 16);
    to[2] = static_cast<char>(value >> 8);
    to[3] = static_cast<char>(value);
    return to + 4;
}

// Writes `length` bytes, then zeros up to `paddedSize`. Returns the end.
char* writePadded(char* to, const char* bytes, std::size_t length, qsizetype paddedSize)
{
    if (length > 0)
        std::memcpy(to, bytes, length);
    std::memset(to + length, 0, static_cast<std::size_t>(paddedSize) - length);
    return to + paddedSize;
}

// Whether `bytes` is well-formed UTF-8 (no overlong forms, no surrogates, at most U+10FFFF).
bool isValidUtf8(const unsigned char* bytes, std::size_t length)
{
    std::size_t i = 0;
    while (i < length) {
        const unsigned char lead = bytes[i];
        if (lead < 0x80) {
            ++i;
            continue;
        }
        int continuation = 0;
        unsigned char low = 0x80;
        unsigned char high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            continuation = 1;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            continuation = 2;
            if (lead == 0xE0)
                low = 0xA0;
            else if (lead == 0xED)
                high = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            continuation = 3;
            if (lead == 0xF0)
                low = 0x90;
            else if (lead == 0xF4)
                high = 0x8F;
        } else {
            return false;
        }
        if (length - i <= std::size_t(continuation))
            return false;
        if (bytes[i + 1] < low || bytes[i + 1] > high)
            return false;
        for (int k = 2; k <= continuation; ++k) {
            if ((bytes[i + k] & 0xC0) != 0x80)
                return false;
        }
        i += std::size_t(continuation) + 1;
    }
    return true;
}

std::string textFromUtf8(const unsigned char* bytes, std::size_t length)
{
    const auto* chars = reinterpret_cast<const char*>(bytes);
    if (isValidUtf8(bytes, length))
        return std::string(chars, length);
    // Each invalid sequence becomes U+FFFD.
    return QString::fromUtf8(chars, static_cast<qsizetype>(length)).toStdString();
}

// One pass over a packet's bytes with one moving cursor.
class Reader {
public:
    explicit Reader(QByteArrayView bytes)
        : data_(reinterpret_cast<const unsigned char*>(bytes.data()))
        , size_(static_cast<std::size_t>(bytes.size()))
    {
    }

    bool atEnd() const { return cursor_ >= size_; }

    // The bytes of an OSC string up to its zero; the cursor moves past its padding.
    bool readRawString(const unsigned char*& text, std::size_t& length)
    {
        if (cursor_ >= size_)
            return false;
        const void* zero = std::memchr(data_ + cursor_, 0, size_ - cursor_);
        if (zero == nullptr)
            return false;
        const auto zeroAt =
            static_cast<std::size_t>(static_cast<const unsigned char*>(zero) - data_);
        text = data_ + cursor_;
        length = zeroAt - cursor_;
        cursor_ = (zeroAt + 4) & ~std::size_t(3);
        return true;
    }

    std::optional<std::string> readString()
    {
        const unsigned char* text = nullptr;
        std::size_t length = 0;
        if (!readRawString(text, length))
            return std::nullopt;
        return textFromUtf8(text, length);
    }

    const unsigned char* take(std::size_t count)
    {
        if (cursor_ > size_ || size_ - cursor_ < count)
            return nullptr;
        const unsigned char* at = data_ + cursor_;
        cursor_ += count;
        return at;
    }

    // Moves past a blob whose bytes are all there.
    bool skipBlob()
    {
        const unsigned char* header = take(4);
        if (header == nullptr)
            return false;
        const std::size_t length = readBigEndian32(header);
        if (cursor_ > size_ || size_ - cursor_ < length)
            return false;
        cursor_ += (length + 3) & ~std::size_t(3);
        return true;
    }

    std::optional<QByteArray> readBlob()
    {
        const unsigned char* header = take(4);
        if (header == nullptr)
            return std::nullopt;
        const std::size_t length = readBigEndian32(header);
        if (cursor_ > size_ || size_ - cursor_ < length)
            return std::nullopt;
        QByteArray blob(reinterpret_cast<const char*>(data_ + cursor_),
                        static_cast<qsizetype>(length));
        cursor_ += (length + 3) & ~std::size_t(3);
        return blob;
    }

private:
    const unsigned char* data_;
    std::size_t size_;
    std::size_t cursor_ = 0;
};

// Reads the argument a tag stands for at the cursor. Without `into` it only checks that the
// argument is there and moves past it, allocating nothing.
bool readArgument(Reader& reader, char tag, std::vector<OSCArgument>* into)
{
    switch (tag) {
    case 'i':
        if (const auto* at = reader.take(4)) {
            if (into)
                into->emplace_back(static_cast<std::int32_t>(readBigEndian32(at)));
            return true;
        }
        return false;
    case 'f':
        if (const auto* at = reader.take(4)) {
            if (into) {
                float value;
                const std::uint32_t bits = readBigEndian32(at);
                std::memcpy(&value, &bits, sizeof value);
                into->emplace_back(value);
            }
            return true;
        }
        return false;
    case 's':
    case 'S': {
        if (!into) {
            const unsigned char* text = nullptr;
            std::size_t length = 0;
            return reader.readRawString(text, length);
        }
        if (auto text = reader.readString()) {
            into->emplace_back(std::move(*text));
            return true;
        }
        return false;
    }
    case 'b':
        if (!into)
            return reader.skipBlob();
        if (auto blob = reader.readBlob()) {
            into->emplace_back(std::move(*blob));
            return true;
        }
        return false;
    case 'h':
    case 't':
        // A 64-bit integer or a time tag keeps only its low half.
        if (const auto* at = reader.take(8)) {
            if (into)
                into->emplace_back(static_cast<std::int32_t>(readBigEndian64(at) & 0xFFFFFFFFu));
            return true;
        }
        return false;
    case 'd':
        if (const auto* at = reader.take(8)) {
            if (into) {
                double value;
                const std::uint64_t bits = readBigEndian64(at);
                std::memcpy(&value, &bits, sizeof value);
                into->emplace_back(static_cast<float>(value));
            }
            return true;
        }
        return false;
    case 'T':
        if (into)
            into->emplace_back(true);
        return true;
    case 'F':
        if (into)
            into->emplace_back(false);
        return true;
    case 'N':
    case 'I':
        if (into)
            into->emplace_back(OSCNull{});
        return true;
    default:
        return false;
    }
}

bool isBundle(QByteArrayView bytes)
{
    return bytes.size() >= 8 && std::memcmp(bytes.data(), kBundleHeader, 8) == 0;
}

void decodePacketInto(QByteArrayView bytes, int depth, std::vector<OSCMessage>& into)
{
    if (!isBundle(bytes)) {
        if (auto message = decodeOSCMessage(bytes))
            into.push_back(std::move(*message));
        return;
    }
    if (depth > kMaxBundleDepth || bytes.size() < 20)
        return;
    // The time tag at bytes 8..15 is not used.
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto size = static_cast<std::size_t>(bytes.size());
    std::size_t cursor = 16;
    while (size - cursor >= 4) {
        const std::size_t elementSize = readBigEndian32(data + cursor);
        cursor += 4;
        if (elementSize == 0 || elementSize > size - cursor)
            return;
        decodePacketInto(
            bytes.sliced(static_cast<qsizetype>(cursor), static_cast<qsizetype>(elementSize)),
            depth + 1, into);
        cursor += elementSize;
    }
}

} // namespace

char oscTypeTag(const OSCArgument& argument)
{
    switch (argument.index()) {
    case 0:
        return 'i';
    case 1:
        return 'f';
    case 2:
        return 's';
    case 3:
        return 'b';
    case 4:
        return std::get<bool>(argument) ? 'T' : 'F';
    case 5:
        return 'N';
    }
    return '?';
}

QByteArray encodeOSC(const OSCMessage& message)
{
    const std::size_t argumentCount = message.arguments.size();
    qsizetype total =
        paddedStringSize(message.address.size()) + paddedStringSize(argumentCount + 1);
    for (const OSCArgument& argument : message.arguments) {
        if (const auto* text = std::get_if<std::string>(&argument)) {
            total += paddedStringSize(text->size());
        } else if (const auto* blob = std::get_if<QByteArray>(&argument)) {
            if (static_cast<std::uint64_t>(blob->size()) >
                std::numeric_limits<std::uint32_t>::max())
                qFatal("osc: a blob of %lld bytes cannot be encoded",
                       static_cast<long long>(blob->size()));
            total += paddedBlobSize(blob->size());
        } else if (std::holds_alternative<std::int32_t>(argument) ||
                   std::holds_alternative<float>(argument)) {
            total += 4;
        }
    }

    QByteArray packet(total, Qt::Uninitialized);
    char* out = packet.data();
    out = writePadded(out, message.address.data(), message.address.size(),
                      paddedStringSize(message.address.size()));
    char* tags = out;
    const qsizetype tagsSize = paddedStringSize(argumentCount + 1);
    std::memset(tags, 0, static_cast<std::size_t>(tagsSize));
    tags[0] = ',';
    for (std::size_t i = 0; i < argumentCount; ++i)
        tags[i + 1] = oscTypeTag(message.arguments[i]);
    out += tagsSize;

    for (const OSCArgument& argument : message.arguments) {
        if (const auto* number = std::get_if<std::int32_t>(&argument)) {
            out = writeBigEndian32(out, static_cast<std::uint32_t>(*number));
        } else if (const auto* real = std::get_if<float>(&argument)) {
            std::uint32_t bits;
            std::memcpy(&bits, real, sizeof bits);
            out = writeBigEndian32(out, bits);
        } else if (const auto* text = std::get_if<std::string>(&argument)) {
            out = writePadded(out, text->data(), text->size(), paddedStringSize(text->size()));
        } else if (const auto* blob = std::get_if<QByteArray>(&argument)) {
            const auto length = static_cast<std::size_t>(blob->size());
            out = writeBigEndian32(out, static_cast<std::uint32_t>(length));
            out = writePadded(out, blob->constData(), length, paddedBlobSize(blob->size()) - 4);
        }
    }
    return packet;
}

std::optional<OSCMessage> decodeOSCMessage(QByteArrayView bytes)
{
    Reader reader(bytes);
    OSCMessage message;
    auto address = reader.readString();
    if (!address || address->empty() || address->front() != '/')
        return std::nullopt;
    message.address = std::move(*address);
    if (reader.atEnd())
        return message;

    const unsigned char* tags = nullptr;
    std::size_t tagCount = 0;
    if (!reader.readRawString(tags, tagCount) || tagCount == 0 || tags[0] != ',')
        return std::nullopt;
    // Every argument is checked before any is stored: a tag string of a million 'i's with no
    // payload behind it is turned away without reserving room for a million arguments.
    Reader check = reader;
    for (std::size_t i = 1; i < tagCount; ++i) {
        if (!readArgument(check, static_cast<char>(tags[i]), nullptr))
            return std::nullopt;
    }
    message.arguments.reserve(tagCount - 1);
    for (std::size_t i = 1; i < tagCount; ++i) {
        if (!readArgument(reader, static_cast<char>(tags[i]), &message.arguments))
            return std::nullopt;
    }
    return message;
}

std::vector<OSCMessage> decodeOSCPacket(QByteArrayView bytes)
{
    std::vector<OSCMessage> messages;
    decodePacketInto(bytes, 0, messages);
    return messages;
}

} // namespace orvane
