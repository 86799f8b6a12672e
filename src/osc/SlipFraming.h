#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QByteArrayView>

#include <vector>

namespace orvane {

// SLIP framing of OSC packets on a stream (the OSC 1.1 convention): END 0xC0 closes a frame,
// ESC 0xDB introduces ESC END 0xDC (a 0xC0 byte) or ESC ESC 0xDD (a 0xDB byte).
namespace slip {
inline constexpr char kEnd = char(0xC0);
inline constexpr char kEsc = char(0xDB);
inline constexpr char kEscEnd = char(0xDC);
inline constexpr char kEscEsc = char(0xDD);
} // namespace slip

// One SLIP frame holding `packet`, with an END byte before and after it.
QByteArray encodeSLIP(QByteArrayView packet);

// Collects SLIP frames from chunks of a byte stream cut anywhere. A frame that grows past
// the size limit without an END is dropped at the end of the chunk that took it past, and
// collection starts afresh. Invalid escapes are tolerated: "DB 41" stands for 41.
// Value type; one per connection. Any thread, one at a time.
class SLIPDecoder {
public:
    static constexpr qsizetype kMaxPacketBytes = 4'194'304;

    explicit SLIPDecoder(qsizetype maximumPacketSize = kMaxPacketBytes);

    // Every frame that `chunk` completes, in stream order. Empty frames yield nothing.
    QByteArrayList decode(QByteArrayView chunk);
    // Forgets a half-collected frame.
    void reset();

    qsizetype bufferedBytes() const { return qsizetype(buffer_.size()); }
    bool isEscaping() const { return isEscaping_; }

private:
    void append(const char* from, const char* to) { buffer_.insert(buffer_.end(), from, to); }
    void endFrame(QByteArrayList& packets);

    std::vector<char> buffer_;
    bool isEscaping_ = false;
    qsizetype maximumPacketSize_;
};

} // namespace orvane
