#pragma once

#include "base/Clock.h"
#include "show/ShowTime.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringView>

#include <cstdint>
#include <optional>
#include <vector>

namespace orvane {

// One QLab cue as a reply describes it: a running cue, or a parent looked up by identity.
// Any thread.
struct QLabCue {
    QString id;     // "uniqueID"
    QString number; // "number"; empty when absent
    QString name;   // "name"
    QString type;   // "type": "Audio", "Group", "Timecode", "Cue List"...
    bool isPaused = false;
    std::optional<double> actionElapsed; // seconds
    std::optional<double> duration;      // "currentDuration", else "duration"
    // When `actionElapsed` was true: the moment the cue was decoded. Absent without it.
    std::optional<WallTime> sampledAt;
    // When the link first saw the cue running (kept by the client).
    std::optional<WallTime> startedAt;
    std::optional<QString> parentID;
    // The name of the group holding the cue, once the client has looked the parent up.
    std::optional<QString> parentName;
    std::optional<QString> timecodeStart;
    std::optional<std::int64_t> timecodeRateIndex;
    std::optional<std::int64_t> timecodeOutputType;

    // The cue in `object`, decoded at `now`; nothing without a "uniqueID".
    static std::optional<QLabCue> decode(const QJsonObject& object, WallTime now);
    // Every cue of an array; entries that do not decode are left out. Nothing for a non-array.
    static std::optional<std::vector<QLabCue>> decodeList(const QJsonValue& data, WallTime now);

    // "Cue List" and "Cart": cues that hold others but never name a running cue's group.
    static bool isContainerType(QStringView type);
    // Frames per second of QLab's timecode rate index; 25 when absent or unknown.
    static double timecodeFramesPerSecond(std::optional<std::int64_t> rateIndex);

    bool isTimecode() const;
    // The show timecode this cue generates at `now`, or nothing (not a Timecode cue, no start,
    // or a start that does not parse).
    std::optional<ShowTime> runningTimecode(WallTime now) const;
    // The name shown for the cue: its own name, led by its group's name when known
    // ("Act 1 › Rain"); the number when the cue has no name.
    QString displayName() const;

    friend bool operator==(const QLabCue&, const QLabCue&) = default;
};

} // namespace orvane
