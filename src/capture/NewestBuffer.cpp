#include "capture/NewestBuffer.h"

#include <cmath>

namespace orvane {

NewestBuffer NewestBuffer::choose(const std::vector<std::int64_t>& stamps,
                                  std::optional<std::int64_t> previous, double frameDuration)
{
    NewestBuffer choice;
    if (stamps.empty())
        return choice;
    choice.index = stamps.size() - 1;
    choice.lost = int(stamps.size()) - 1;
    if (!(frameDuration > 0))
        return choice;
    const double period = frameDuration * 1e6;
    std::optional<std::int64_t> before = previous;
    for (const std::int64_t stamp : stamps) {
        // Stamps that stand still or go back (a driver that does not keep them) say nothing.
        if (before && stamp > *before) {
            const auto missed = std::llround(double(stamp - *before) / period) - 1;
            if (missed > 0)
                choice.lost += int(missed);
        }
        before = stamp;
    }
    return choice;
}

} // namespace orvane
