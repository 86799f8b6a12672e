#include "MjpegReader.h"

void MjpegReader::feed(QByteArrayView bytes)
{
    if (broken_)
        return;
    buffer_.append(bytes);
    if (header_.isEmpty()) {
        const qsizetype end = buffer_.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        header_ = buffer_.first(end + 4);
        buffer_.remove(0, end + 4);
    }
    static const QByteArray start = "--frame\r\nContent-Type: image/jpeg\r\nContent-Length: ";
    for (;;) {
        if (buffer_.size() < start.size()) {
            broken_ = !start.startsWith(buffer_);
            return;
        }
        if (!buffer_.startsWith(start)) {
            broken_ = true;
            return;
        }
        const qsizetype lengthEnd = buffer_.indexOf("\r\n\r\n", start.size());
        if (lengthEnd < 0) {
            broken_ = buffer_.size() > start.size() + 12;
            return;
        }
        bool ok = false;
        const qsizetype length =
            buffer_.mid(start.size(), lengthEnd - start.size()).toLongLong(&ok);
        if (!ok || length <= 0) {
            broken_ = true;
            return;
        }
        const qsizetype partEnd = lengthEnd + 4 + length + 2;
        if (buffer_.size() < partEnd)
            return;
        if (buffer_.mid(partEnd - 2, 2) != "\r\n") {
            broken_ = true;
            return;
        }
        lastJpeg_ = buffer_.mid(lengthEnd + 4, length);
        ++parts_;
        buffer_.remove(0, partEnd);
    }
}
