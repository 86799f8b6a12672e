#pragma once

#include "osc/OSCMessage.h"
#include "qlab/QLabReply.h"

#include <QString>

#include <optional>

namespace orvane {

// What one OSC message from QLab means to the link: a reply, a cue event or an update. Any thread.
struct QLabMessage {
    enum class Kind {
        reply,                   // "/reply/…"; `reply` holds the envelope
        cueStarted,              // "/qlab/event/workspace/cue/start"
        cueStopped,              // "/qlab/event/workspace/cue/stop"
        workspaceUpdated,        // "/update/workspace/ID"
        cueUpdated,              // "/update/workspace/ID/cue_id/CUE"
        playbackPositionChanged, // "/update/workspace/ID/cueList/LIST/playbackPosition"
        disconnect,              // "/update/workspace/ID/disconnect"
    };

    Kind kind = Kind::reply;
    QLabReply reply;
    QString workspaceID;
    QString cueID;

    // The meaning of `message`, or nothing for messages the link ignores (unknown addresses,
    // replies without a JSON envelope).
    static std::optional<QLabMessage> classify(const OSCMessage& message);

    friend bool operator==(const QLabMessage&, const QLabMessage&) = default;
};

} // namespace orvane
