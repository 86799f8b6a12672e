#pragma once

#include "osc/OSCFraming.h"
#include "osc/SlipFraming.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QByteArrayView>

namespace orvane {

// The packet's length as a 32-bit big-endian number, then the packet (the OSC 1.0 convention).
QByteArray encodeLengthPrefixed(QByteArrayView packet);

// `packet` framed for a stream that uses `framing`.
QByteArray frameOSCPacket(OSCFraming framing, QByteArrayView packet);

// Turns chunks of a TCP byte stream, cut anywhere, into whole OSC packets in stream order, and
// notices a peer that does not speak the framing: a length prefix over the size limit, or
// more than 256 KiB in a row without a packet. The owner reads isOutOfStep() after each chunk
// and drops the connection; a new connection takes a new decoder.
// Value type. Any thread, one at a time.
class OSCStreamDecoder {
public:
    static constexpr qsizetype kMaxPacketBytes = SLIPDecoder::kMaxPacketBytes;
    // Bytes in a row without a packet after which the stream is taken for another protocol.
    static constexpr qsizetype kMaxBytesWithoutPacket = 262'144;

    explicit OSCStreamDecoder(OSCFraming framing);

    // The packets that `chunk` completes, in stream order. Empty frames are skipped.
    QByteArrayList decode(QByteArrayView chunk);

    OSCFraming framing() const { return framing_; }
    // Set once the stream is judged not to be in this framing; it stays set.
    bool isOutOfStep() const { return isOutOfStep_; }
    qsizetype bytesWithoutPacket() const { return bytesWithoutPacket_; }

private:
    // Sets `impossibleLength` when a prefix exceeds the size limit; the buffer is then dropped.
    QByteArrayList decodeLengthPrefixed(QByteArrayView chunk, bool& impossibleLength);

    OSCFraming framing_;
    SLIPDecoder slip_;
    QByteArray buffer_;
    bool isOutOfStep_ = false;
    qsizetype bytesWithoutPacket_ = 0;
};

} // namespace orvane
