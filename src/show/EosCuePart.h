#pragma once

#include "base/Clock.h"
#include "show/FadeClock.h"

#include <QString>

#include <optional>

namespace orvane {

// One part of the active Eos cue with its fade progress. A plain value; any thread.
struct EosCuePart {
    QString number; // part number: "1" is the cue itself
    QString label;
    QString time;                   // the part's time text
    int percent = 0;                // progress in percent, 0...100
    WallTime sampledAt{};           // when `percent` was sampled
    bool hasText = false;           // whether a line of cue text was received for this part
    std::optional<FadeClock> clock; // the part's fade clock when its time is known

    friend bool operator==(const EosCuePart&, const EosCuePart&) = default;
};

} // namespace orvane
