// Feeds arbitrary packets through everything the QLab link decodes: the OSC packet, the
// message classification, the reply envelope, and the workspaces and cues in its data. Every
// number a cue keeps must be finite (no "nan" or "inf" may reach the overlay), and a Timecode
// cue's running timecode must format as a timecode at any instant, however far its elapsed
// time or its sampling instant lies.

#include "qlab/QLabCue.h"
#include "qlab/QLabMessage.h"
#include "qlab/QLabWorkspace.h"

#include <QRegularExpression>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void check(const orvane::QLabCue& cue, orvane::WallTime now)
{
    using namespace orvane;
    for (const auto& number : {cue.actionElapsed, cue.duration}) {
        if (number && !std::isfinite(*number))
            std::abort();
    }
    static const QRegularExpression timecode(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d:\\d\\d$"));
    for (const WallTime at : {addSeconds(now, 1.5), WallTime::min(), WallTime::max()}) {
        const auto time = cue.runningTimecode(at);
        if (!time)
            continue;
        const QString shown = ShowTime::format(time->secondsAt(addSeconds(at, 0.5)),
                                               time->framesPerSecond);
        if (!timecode.match(shown).hasMatch())
            std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orvane;
    const QByteArrayView bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    // The same bytes also stand for a reply's JSON text, so the JSON readers see them directly.
    if (auto reply = QLabReply::decode(bytes)) {
        const WallTime now{};
        QLabWorkspace::decodeList(reply->data);
        if (auto cues = QLabCue::decodeList(reply->data, now)) {
            for (const QLabCue& cue : *cues)
                check(cue, now);
        }
    }
    for (const OSCMessage& osc : decodeOSCPacket(bytes)) {
        const auto message = QLabMessage::classify(osc);
        if (message && message->kind == QLabMessage::Kind::reply) {
            QLabWorkspace::decodeList(message->reply.data);
            if (auto cues = QLabCue::decodeList(message->reply.data, WallTime{})) {
                for (const QLabCue& cue : *cues)
                    check(cue, WallTime{});
            }
        }
    }
    return 0;
}
