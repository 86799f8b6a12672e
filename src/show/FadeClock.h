#pragma once

#include "base/Clock.h"

namespace orvane {

// Estimates how far a lighting fade has got from its fade time and the percentages the console
// reports now and then. The shown progress runs ahead of the last report by a small lead at
// most, freezes when the reports stop although time says they should go on (the fade is held
// on the console), and never jumps back while the reports rise. A plain value; any thread.
struct FadeClock {
    double fade = 1;          // seconds, above zero
    WallTime startedAt{};     // when a fade at constant speed would have stood at 0 %
    double reported = 0;      // the console's last fraction, 0...1
    WallTime advancedAt{};    // when a report was last taken in
    bool hasAdvanced = false; // false until a report first moved `reported` upward

    // Takes in the fraction the console reports at `now` (clamped to 0...1).
    void report(double fraction, WallTime now);

    // The estimate at `at`, capped a lead above the last report: 0...1.
    double progress(WallTime at) const;
    // True when the reports stopped advancing although time says they should have.
    bool isStalled(WallTime at) const;
    // What the overlay shows: 1 once the console reports 99 % or more; while stalled, the
    // value at which the estimate stood when the stall began; otherwise progress(at).
    double shownProgress(WallTime at) const;
    // Seconds left of the fade as shown.
    double remaining(WallTime at) const;

    // The most the estimate may run ahead of the last report once the console has advanced.
    double lead() const;
    // How long the reports may pause before the fade counts as held.
    double grace() const;

    friend bool operator==(const FadeClock&, const FadeClock&) = default;

private:
    double rawProgress(WallTime at) const;
    WallTime stallBegan() const;
};

} // namespace orvane
