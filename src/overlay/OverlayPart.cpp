#include "overlay/OverlayPart.h"

#include <algorithm>
#include <cmath>

namespace orvane {

namespace {

bool hasPositiveDuration(const RunningTime& running)
{
    return running.duration && *running.duration > 0;
}

QString secondsText(const char* format, double seconds)
{
    return QString::asprintf(format, seconds);
}

} // namespace

double OverlayPart::progressAt(WallTime now) const
{
    if (running)
        return running->progressAt(now);
    if (clock) {
        if (clock->reported >= 0.99)
            return 1;
        return std::min(1.0, clock->shownProgress(now));
    }
    if (std::isnan(progress))
        return 0;
    return std::clamp(progress, 0.0, 1.0);
}

bool OverlayPart::isPausedAt(WallTime now) const
{
    if (running)
        return running->isPaused;
    if (clock)
        return clock->isStalled(now);
    return false;
}

QString OverlayPart::statusAt(WallTime now) const
{
    if (running) {
        if (!hasPositiveDuration(*running))
            return secondsText("+%.1fs", running->elapsedAt(now));
        const double remaining = std::max(0.0, *running->duration - running->elapsedAt(now));
        if (remaining <= 0)
            return QStringLiteral("Done");
        return secondsText("-%.3fs", remaining);
    }
    const double shown = progressAt(now);
    if (shown >= 1)
        return QStringLiteral("Done");
    if (clock)
        return secondsText("-%.3fs", clock->remaining(now));
    return QString::number(static_cast<int>(std::trunc(shown * 100))) + QLatin1Char('%');
}

} // namespace orvane
