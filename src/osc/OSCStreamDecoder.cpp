#include "osc/OSCStreamDecoder.h"

#include <QtEndian>

namespace orvane {

QByteArray encodeLengthPrefixed(QByteArrayView packet)
{
    QByteArray frame(4 + packet.size(), Qt::Uninitialized);
    qToBigEndian(quint32(packet.size()), frame.data());
    std::copy(packet.begin(), packet.end(), frame.begin() + 4);
    return frame;
}

QByteArray frameOSCPacket(OSCFraming framing, QByteArrayView packet)
{
    switch (framing) {
    case OSCFraming::slip:
        return encodeSLIP(packet);
    case OSCFraming::lengthPrefixed:
        return encodeLengthPrefixed(packet);
    }
    return {};
}

OSCStreamDecoder::OSCStreamDecoder(OSCFraming framing)
    : framing_(framing)
    , slip_(kMaxPacketBytes)
{
}

QByteArrayList OSCStreamDecoder::decode(QByteArrayView chunk)
{
    QByteArrayList packets;
    switch (framing_) {
    case OSCFraming::slip:
        packets = slip_.decode(chunk);
        break;
    case OSCFraming::lengthPrefixed: {
        bool impossibleLength = false;
        packets = decodeLengthPrefixed(chunk, impossibleLength);
        if (impossibleLength)
            return packets;
        break;
    }
    }
    if (!packets.isEmpty()) {
        bytesWithoutPacket_ = 0;
        return packets;
    }
    bytesWithoutPacket_ += chunk.size();
    if (bytesWithoutPacket_ > kMaxBytesWithoutPacket)
        isOutOfStep_ = true;
    return packets;
}

QByteArrayList OSCStreamDecoder::decodeLengthPrefixed(QByteArrayView chunk, bool& impossibleLength)
{
    QByteArrayList packets;
    buffer_.append(chunk);
    const char* const data = buffer_.constData();
    const qsizetype size = buffer_.size();
    qsizetype offset = 0;
    while (size - offset >= 4) {
        const quint32 length = qFromBigEndian<quint32>(data + offset);
        if (length > quint32(kMaxPacketBytes)) {
            buffer_.clear();
            slip_.reset();
            bytesWithoutPacket_ = 0;
            isOutOfStep_ = true;
            impossibleLength = true;
            return packets;
        }
        if (size - offset - 4 < qsizetype(length))
            break;
        if (length > 0)
            packets.append(QByteArray(data + offset + 4, qsizetype(length)));
        offset += 4 + qsizetype(length);
    }
    // Consumed bytes go once per chunk, not once per packet.
    buffer_.remove(0, offset);
    return packets;
}

} // namespace orvane
