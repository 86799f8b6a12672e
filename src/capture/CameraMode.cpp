#include "capture/CameraMode.h"

namespace orvane {

std::optional<FrameRateRange> CameraMode::fastest(const std::vector<FrameRateRange>& ranges)
{
    std::optional<FrameRateRange> best;
    for (const auto& range : ranges)
        if (!best || range.maximum > best->maximum)
            best = range;
    return best;
}

CameraMode CameraMode::choose(const CameraMode& active, const std::vector<CameraMode>& offered)
{
    if (active.compressed)
        return active;
    const auto rate = fastest(active.rates);
    const double bytesPerSecond =
        double(active.width) * active.height * active.bytesPerPixel * (rate ? rate->maximum : 0);
    if (bytesPerSecond <= kRawBytesPerSecond)
        return active;
    for (const auto& mode : offered)
        if (mode.compressed && mode.width == active.width && mode.height == active.height)
            return mode;
    return active;
}

} // namespace orvane
