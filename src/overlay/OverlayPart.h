#pragma once

#include "base/Clock.h"
#include "show/FadeClock.h"
#include "show/RunningTime.h"

#include <QString>

#include <optional>

namespace orvane {

// One progress row of the overlay: a part (fade) of the current lighting cue, or a running
// QLab cue. Its bar, pause sign and status figure are derived from the clocks at the instant
// a frame is drawn. A plain value; any thread.
struct OverlayPart {
    QString id;  // stable identity of the row
    QString tag; // short marker before the label (part or cue number)
    QString label;
    double progress = 0;                // 0...1, as reported, for rows without a clock
    std::optional<FadeClock> clock;     // Eos parts that fade
    std::optional<RunningTime> running; // QLab cues
    bool isRunning = false;

    // 0...1. A running time gives its own progress; a fade clock its shown progress (1 once
    // the console reported 99 %); otherwise the stored progress, clamped.
    double progressAt(WallTime now) const;
    // A QLab cue that is paused, or a fade whose console reports stopped advancing.
    bool isPausedAt(WallTime now) const;
    // The small figure beside the bar: "-12.345s" left, "+3.2s" run so far for a cue of
    // unknown length, "Done", or a whole percentage such as "40%".
    QString statusAt(WallTime now) const;
    // Whether the bar is full.
    bool isCompleteAt(WallTime now) const { return progressAt(now) >= 1; }

    friend bool operator==(const OverlayPart&, const OverlayPart&) = default;
};

} // namespace orvane
