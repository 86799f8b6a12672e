#include "outputs/WebRequest.h"

#include <QList>

namespace orvane {

namespace {

constexpr QByteArrayView kHeaderEnd = "\r\n\r\n";
constexpr QByteArrayView kStreamType = "multipart/x-mixed-replace; boundary=frame";

QByteArray plainAnswer(QByteArrayView status, QByteArrayView type, QByteArrayView body,
                       bool withBody)
{
    QByteArray answer;
    answer.reserve(160 + body.size());
    answer.append("HTTP/1.1 ").append(status).append("\r\n");
    answer.append("Content-Type: ").append(type).append("\r\n");
    answer.append("Content-Length: ").append(QByteArray::number(body.size())).append("\r\n");
    answer.append("Cache-Control: no-cache\r\nConnection: close\r\n\r\n");
    if (withBody)
        answer.append(body);
    return answer;
}

QByteArray streamHeader()
{
    QByteArray header("HTTP/1.1 200 OK\r\nContent-Type: ");
    header.append(kStreamType);
    header.append("\r\nCache-Control: no-cache, no-store\r\nPragma: no-cache\r\n"
                  "Connection: close\r\n\r\n");
    return header;
}

// The request line's words, split at spaces with empty words left out.
QList<QByteArrayView> wordsOf(QByteArrayView line)
{
    QList<QByteArrayView> words;
    qsizetype start = 0;
    while (start < line.size()) {
        qsizetype end = line.indexOf(' ', start);
        if (end < 0)
            end = line.size();
        if (end > start)
            words.append(line.sliced(start, end - start));
        start = end + 1;
    }
    return words;
}

} // namespace

std::optional<WebAnswer> answerWebRequest(QByteArrayView request)
{
    const qsizetype headerEnd = request.indexOf(kHeaderEnd);
    if (headerEnd < 0)
        return std::nullopt;
    const QByteArrayView header = request.first(headerEnd);
    const qsizetype lineEnd = header.indexOf(QByteArrayView("\r\n"));
    const auto words = wordsOf(lineEnd < 0 ? header : header.first(lineEnd));

    const bool isGet = words.size() >= 2 && words[0] == "GET";
    const bool isHead = words.size() >= 2 && words[0] == "HEAD";
    if (!isGet && !isHead)
        return WebAnswer{WebAnswer::Kind::plain, plainAnswer("405 Method Not Allowed", "text/plain",
                                                             "Method not allowed", true)};

    QByteArrayView path = words[1];
    if (const qsizetype query = path.indexOf('?'); query >= 0)
        path = path.first(query);
    if (path.isEmpty() || path == "/")
        return WebAnswer{WebAnswer::Kind::plain,
                         plainAnswer("200 OK", "text/html; charset=utf-8", webPage(), isGet)};
    if (path == "/stream.mjpg") {
        if (isHead)
            return WebAnswer{WebAnswer::Kind::plain, plainAnswer("200 OK", kStreamType, {}, false)};
        return WebAnswer{WebAnswer::Kind::stream, streamHeader()};
    }
    return WebAnswer{WebAnswer::Kind::plain,
                     plainAnswer("404 Not Found", "text/plain", "Not found", isGet)};
}

QByteArray webStreamPart(QByteArrayView jpeg)
{
    QByteArray part;
    const QByteArray length = QByteArray::number(jpeg.size());
    part.reserve(64 + jpeg.size());
    part.append("--frame\r\nContent-Type: image/jpeg\r\nContent-Length: ");
    part.append(length).append("\r\n\r\n").append(jpeg).append("\r\n");
    return part;
}

QByteArray webPage()
{
    static const QByteArray page = QByteArrayLiteral(R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Orvane</title>
<style>
html, body { margin: 0; padding: 0; width: 100%; height: 100%; background: #000; overflow: hidden; }
#video { display: block; width: 100%; height: 100%; object-fit: contain; background: #000; }
#fullscreen { position: fixed; right: 16px; bottom: 16px; padding: 10px 16px; border: none;
  border-radius: 10px; background: rgba(255, 255, 255, 0.16); color: #fff;
  font: 15px system-ui, -apple-system, sans-serif; cursor: pointer; transition: opacity 0.3s; }
body.idle #fullscreen { opacity: 0; }
:fullscreen #fullscreen { display: none; }
:-webkit-full-screen #fullscreen { display: none; }
</style>
</head>
<body>
<img id="video" src="/stream.mjpg" alt="Live picture from Orvane">
<button id="fullscreen" type="button">Full Screen</button>
<script>
(function () {
  var video = document.getElementById("video");
  var button = document.getElementById("fullscreen");
  function goFullScreen() {
    var page = document.documentElement;
    if (page.requestFullscreen) page.requestFullscreen();
    else if (page.webkitRequestFullscreen) page.webkitRequestFullscreen();
  }
  button.addEventListener("click", goFullScreen);
  video.addEventListener("dblclick", goFullScreen);
  function askAgain() {
    setTimeout(function () { video.src = "/stream.mjpg?" + Date.now(); }, 1000);
  }
  video.addEventListener("error", askAgain);
  // A browser shows an ended stream as a finished picture and reports no failure, so a
  // picture that has not changed for 3 s counts as failed too.
  var sample = document.createElement("canvas");
  sample.width = 64;
  sample.height = 36;
  var sampler = sample.getContext("2d", { willReadFrequently: true });
  var lastSample = "";
  var stillSince = Date.now();
  setInterval(function () {
    if (!video.complete || !video.naturalWidth) { stillSince = Date.now(); return; }
    sampler.drawImage(video, 0, 0, sample.width, sample.height);
    var now = sampler.getImageData(0, 0, sample.width, sample.height).data.join(",");
    if (now !== lastSample) { lastSample = now; stillSince = Date.now(); return; }
    if (Date.now() - stillSince >= 3000) { stillSince = Date.now(); askAgain(); }
  }, 1000);
  var idleTimer = null;
  function awake() {
    document.body.classList.remove("idle");
    clearTimeout(idleTimer);
    idleTimer = setTimeout(function () { document.body.classList.add("idle"); }, 2500);
  }
  document.addEventListener("mousemove", awake);
  document.addEventListener("touchstart", awake);
  awake();
})();
</script>
</body>
</html>
)html");
    return page;
}

} // namespace orvane
