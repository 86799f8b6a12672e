#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>

// Reads the web viewer's stream as a browser does: the HTTP header, then parts of
// "--frame\r\nContent-Type: image/jpeg\r\nContent-Length: N\r\n\r\n" + N bytes + "\r\n".
// Marks the stream broken at the first byte that does not fit. Bytes may come in any pieces.
class MjpegReader {
public:
    void feed(QByteArrayView bytes);

    bool hasHeader() const { return !header_.isEmpty(); }
    QByteArray header() const { return header_; }
    int parts() const { return parts_; }
    QByteArray lastJpeg() const { return lastJpeg_; }
    bool isBroken() const { return broken_; }

private:
    QByteArray buffer_;
    QByteArray header_;
    QByteArray lastJpeg_;
    int parts_ = 0;
    bool broken_ = false;
};
