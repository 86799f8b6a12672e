#include "show/FadeClock.h"

#include <algorithm>

namespace orvane {

namespace {

constexpr double kFinished = 0.99;        // a report this high means the fade is done
constexpr double kUnadvancedLead = 0.015; // how far the estimate may lead before any report rose
constexpr double kStallMargin = 0.01;     // how far time must be ahead of the report to stall

} // namespace

double FadeClock::lead() const
{
    return std::max(0.2 / fade, 0.03);
}

double FadeClock::grace() const
{
    return std::max(fade * 0.03, 0.6);
}

double FadeClock::rawProgress(WallTime at) const
{
    if (!(fade > 0))
        return 1; // a fade of no length is done
    return secondsBetween(startedAt, at) / fade;
}

double FadeClock::progress(WallTime at) const
{
    const double raw = std::clamp(rawProgress(at), 0.0, 1.0);
    const double cap = reported + (hasAdvanced ? lead() : kUnadvancedLead);
    return std::min(cap, raw);
}

bool FadeClock::isStalled(WallTime at) const
{
    return reported < kFinished && hasAdvanced && secondsBetween(advancedAt, at) > grace() &&
           std::clamp(rawProgress(at), 0.0, 1.0) > reported + kStallMargin &&
           progress(addSeconds(advancedAt, grace())) < 1;
}

// The estimate stops where it stood when the stall began: one grace after the last report, or
// later, when time only then passed the report. Freezing at the grace alone would pull the bar
// back whenever the console had run ahead of time.
WallTime FadeClock::stallBegan() const
{
    const WallTime afterGrace = addSeconds(advancedAt, grace());
    const WallTime timePassedReport = addSeconds(startedAt, (reported + kStallMargin) * fade);
    return std::max(afterGrace, timePassedReport);
}

double FadeClock::shownProgress(WallTime at) const
{
    if (reported >= kFinished)
        return 1;
    if (isStalled(at))
        return std::min(1.0, progress(stallBegan()));
    return std::min(1.0, progress(at));
}

double FadeClock::remaining(WallTime at) const
{
    if (reported >= kFinished)
        return 0;
    return fade * (1 - shownProgress(at));
}

void FadeClock::report(double fraction, WallTime now)
{
    const double p = std::clamp(fraction, 0.0, 1.0);
    const double raw = rawProgress(now);
    const auto reanchorAt = [&](double shown) { startedAt = addSeconds(now, -shown * fade); };

    if (p > reported) {
        const double shown = shownProgress(now);
        if (hasAdvanced) {
            if (reported < kFinished && isStalled(now))
                reanchorAt(shown);
        } else {
            hasAdvanced = true;
            const bool timeRanAhead = raw > 1 ? p + lead() < 1 : raw > 0 && p + lead() < raw;
            // Re-anchored at the console's figure, but never below what was already shown.
            if (timeRanAhead)
                reanchorAt(std::max(p, shown));
        }
        advancedAt = now;
        reported = p;
        return;
    }

    bool reanchor = false;
    if (raw > 1)
        reanchor = p < 0.9 && p < reported;
    else if (raw > 0)
        reanchor = p < reported && p < raw - 0.1;
    if (reanchor) {
        reanchorAt(p);
        advancedAt = now;
    }
    reported = p;
}

} // namespace orvane
