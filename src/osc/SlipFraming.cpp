#include "osc/SlipFraming.h"

#include <algorithm>

namespace orvane {

QByteArray encodeSLIP(QByteArrayView packet)
{
    QByteArray frame;
    frame.reserve(packet.size() + 8);
    frame.append(slip::kEnd);
    for (const char byte : packet) {
        if (byte == slip::kEsc) {
            frame.append(slip::kEsc);
            frame.append(slip::kEscEsc);
        } else if (byte == slip::kEnd) {
            frame.append(slip::kEsc);
            frame.append(slip::kEscEnd);
        } else {
            frame.append(byte);
        }
    }
    frame.append(slip::kEnd);
    return frame;
}

SLIPDecoder::SLIPDecoder(qsizetype maximumPacketSize)
    : maximumPacketSize_(maximumPacketSize)
{
}

QByteArrayList SLIPDecoder::decode(QByteArrayView chunk)
{
    QByteArrayList packets;
    const char* at = chunk.data();
    const char* const end = at + chunk.size();
    while (at < end) {
        if (isEscaping_) {
            isEscaping_ = false;
            const char byte = *at++;
            const char meant = byte == slip::kEscEsc   ? slip::kEsc
                               : byte == slip::kEscEnd ? slip::kEnd
                                                       : byte;
            buffer_.push_back(meant);
            continue;
        }
        // Copy the run of plain bytes in one go, then act on the special byte after it.
        const char* special = std::find_if(
            at, end, [](char byte) { return byte == slip::kEnd || byte == slip::kEsc; });
        append(at, special);
        if (special == end)
            break;
        if (*special == slip::kEsc)
            isEscaping_ = true;
        else
            endFrame(packets);
        at = special + 1;
    }
    if (qsizetype(buffer_.size()) > maximumPacketSize_) {
        // A runaway frame: drop it and give its memory back.
        reset();
        buffer_.shrink_to_fit();
    }
    return packets;
}

void SLIPDecoder::reset()
{
    buffer_.clear();
    isEscaping_ = false;
}

void SLIPDecoder::endFrame(QByteArrayList& packets)
{
    if (buffer_.empty())
        return;
    packets.append(QByteArray(buffer_.data(), qsizetype(buffer_.size())));
    buffer_.clear(); // keeps its capacity for the next frame
}

} // namespace orvane
