#pragma once

#include "base/Clock.h"

#include <optional>

namespace orvane {

// How far a running item (a QLab cue, a cue part of known length) has got: true at
// `sampledAt`, asked for its value at draw time. A plain value; any thread.
struct RunningTime {
    double elapsed = 0; // seconds run at `sampledAt`
    WallTime sampledAt{};
    std::optional<double> duration; // seconds; absent when unknown
    bool isPaused = false;

    // `elapsed` plus the time since `sampledAt` unless paused; a `sampledAt` in the future
    // adds nothing.
    double elapsedAt(WallTime now) const;
    // Seconds left, when the duration is known and above zero.
    std::optional<double> remainingAt(WallTime now) const;
    // 0...1; 0 when the duration is unknown or not above zero.
    double progressAt(WallTime now) const;

    friend bool operator==(const RunningTime&, const RunningTime&) = default;
};

} // namespace orvane
