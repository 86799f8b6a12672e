// Feeds arbitrary bytes to both stream decoders, cut where the input says, and checks what
// must always hold: packets are never empty, never larger than the limit plus one chunk, and
// a SLIP frame of any decoded packet decodes back to it.
#include "osc/OSCStreamDecoder.h"
#include "osc/SlipFraming.h"

#include <cstdint>
#include <cstdlib>

using namespace orvane;

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

void feed(OSCFraming framing, const std::uint8_t* data, std::size_t size)
{
    OSCStreamDecoder decoder(framing);
    SLIPDecoder roundTrip;
    // The first byte picks the piece size, so the same bytes are also tried cut up.
    const std::size_t piece = size == 0 ? 1 : std::size_t(data[0]) % 64 + 1;
    for (std::size_t at = 0; at < size; at += piece) {
        const auto length = qsizetype(std::min(piece, size - at));
        const QByteArrayView chunk(reinterpret_cast<const char*>(data) + at, length);
        for (const QByteArray& packet : decoder.decode(chunk)) {
            require(!packet.isEmpty());
            require(packet.size() <= OSCStreamDecoder::kMaxPacketBytes + length);
            require(roundTrip.decode(encodeSLIP(packet)) == QByteArrayList{packet});
        }
    }
    require(decoder.bytesWithoutPacket() <= qsizetype(size));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    feed(OSCFraming::slip, data, size);
    feed(OSCFraming::lengthPrefixed, data, size);
    SLIPDecoder whole;
    whole.decode(QByteArrayView(reinterpret_cast<const char*>(data), qsizetype(size)));
    return 0;
}
