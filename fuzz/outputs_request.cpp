// Feeds arbitrary bytes to the web viewer's request rules, whole and as the server receives
// them (growing prefixes). A request is answered exactly when its header is complete, the
// answer depends only on the header, and it is always one of the viewer's own answers.

#include "outputs/WebRequest.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArrayView bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    const auto answer = orvane::answerWebRequest(bytes);
    const qsizetype headerEnd = bytes.indexOf(QByteArrayView("\r\n\r\n"));
    if (answer.has_value() != (headerEnd >= 0))
        std::abort();
    if (!answer)
        return 0;
    if (!answer->bytes.startsWith("HTTP/1.1 ") || !answer->bytes.contains("\r\n\r\n"))
        std::abort();
    // Bytes after the header change nothing.
    if (orvane::answerWebRequest(bytes.first(headerEnd + 4)) != answer)
        std::abort();
    // Any prefix that stops short of the header's end is still waiting.
    if (headerEnd > 0 && orvane::answerWebRequest(bytes.first(headerEnd + 3)).has_value())
        std::abort();
    return 0;
}
