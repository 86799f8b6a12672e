#pragma once

#include "base/Clock.h"

#include <QString>
#include <QStringView>

#include <optional>

namespace orvane {

// The show's timecode as a QLab timecode cue runs it: true at `sampledAt`, asked for its value
// at draw time. A plain value; any thread.
struct ShowTime {
    double start = 0;   // seconds of timecode at which the timecode cue starts
    double elapsed = 0; // seconds of timecode run at `sampledAt`
    WallTime sampledAt{};
    bool isPaused = false;
    double framesPerSecond = 25;

    // start + elapsed, plus the time since `sampledAt` unless paused (never less than nothing).
    double secondsAt(WallTime now) const;

    // "HH:MM:SS:FF": hours wrap at 24, negative seconds show as zero, the frame number never
    // reaches the rate, and the frames always follow a colon.
    static QString format(double seconds, double framesPerSecond);
    // "HH:MM:SS", "HH:MM:SS:FF" (":" or ";" between pieces) or a plain number of seconds.
    // Nothing for anything else, for negative values and for minutes or seconds of 60 or more.
    static std::optional<double> parse(QStringView text, double framesPerSecond);

    friend bool operator==(const ShowTime&, const ShowTime&) = default;
};

} // namespace orvane
