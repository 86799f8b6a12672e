// Feeds arbitrary packets through everything the QLab link decodes: the OSC packet, the
// message classification, the reply envelope, and the workspaces and cues in its data.

#include "qlab/QLabCue.h"
#include "qlab/QLabMessage.h"
#include "qlab/QLabWorkspace.h"

#include <cstddef>
#include <cstdint>

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
                cue.runningTimecode(addSeconds(now, 1.5));
        }
    }
    for (const OSCMessage& osc : decodeOSCPacket(bytes)) {
        const auto message = QLabMessage::classify(osc);
        if (message && message->kind == QLabMessage::Kind::reply) {
            QLabWorkspace::decodeList(message->reply.data);
            QLabCue::decodeList(message->reply.data, WallTime{});
        }
    }
    return 0;
}
