#include "show/RunningTime.h"

#include <algorithm>

namespace orvane {

double RunningTime::elapsedAt(WallTime now) const
{
    if (isPaused)
        return elapsed;
    return elapsed + std::max(0.0, secondsBetween(sampledAt, now));
}

std::optional<double> RunningTime::remainingAt(WallTime now) const
{
    if (!duration || !(*duration > 0))
        return std::nullopt;
    return std::max(0.0, *duration - elapsedAt(now));
}

double RunningTime::progressAt(WallTime now) const
{
    if (!duration || !(*duration > 0))
        return 0;
    return std::clamp(elapsedAt(now) / *duration, 0.0, 1.0);
}

} // namespace orvane
