#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <optional>

namespace orvane {

// The web viewer's HTTP rules: what a browser's request gets back. Pure functions; any thread.

// The answer to one request.
struct WebAnswer {
    enum class Kind {
        plain,  // `bytes` is the whole answer; the connection closes once it is sent
        stream, // `bytes` is the stream's header; JPEG parts follow until the viewer leaves
    };
    Kind kind = Kind::plain;
    QByteArray bytes;
    friend bool operator==(const WebAnswer&, const WebAnswer&) = default;
};

// A request is read in pieces of at most this many bytes.
inline constexpr qsizetype kWebReadBytes = 8192;
// A request whose header grows past this without ending is not a browser's: it is closed.
inline constexpr qsizetype kWebRequestLimit = 64 * 1024;

// The answer to the request that begins `request`, once its header is complete (it holds
// "\r\n\r\n"); nothing while more bytes are needed. Bytes after the header are ignored.
std::optional<WebAnswer> answerWebRequest(QByteArrayView request);

// One frame of the stream: the part boundary, its headers, the JPEG bytes and "\r\n".
QByteArray webStreamPart(QByteArrayView jpeg);

// The viewing page served at "/".
QByteArray webPage();

} // namespace orvane
