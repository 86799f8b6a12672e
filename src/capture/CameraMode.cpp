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

namespace {

double fastestRate(const CameraMode& mode)
{
    const auto rate = CameraMode::fastest(mode.rates);
    return rate ? rate->maximum : 0;
}

// Whether the camera can deliver `mode` at its fastest rate: compressed always, raw only when
// it fits on the bus.
bool fits(const CameraMode& mode)
{
    return mode.compressed ||
           double(mode.width) * mode.height * mode.bytesPerPixel * fastestRate(mode) <=
               CameraMode::kRawBytesPerSecond;
}

qint64 area(const CameraMode& mode)
{
    return qint64(mode.width) * mode.height;
}

// Of two modes that both qualify, whether `a` is the better: raw before compressed (nothing
// to decode), then the faster, then the one offered first.
bool better(const CameraMode& a, const CameraMode& b)
{
    if (a.compressed != b.compressed)
        return !a.compressed;
    return fastestRate(a) > fastestRate(b);
}

} // namespace

std::optional<CameraMode> CameraMode::choose(const std::vector<CameraMode>& offered,
                                             std::optional<QSize> wanted)
{
    std::vector<CameraMode> usable;
    for (const auto& mode : offered)
        if (fits(mode) && fastestRate(mode) > 0)
            usable.push_back(mode);
    if (usable.empty())
        return offered.empty() ? std::nullopt : std::optional(offered.front());
    if (wanted) {
        std::optional<CameraMode> best;
        for (const auto& mode : usable)
            if (QSize(mode.width, mode.height) == *wanted && (!best || better(mode, *best)))
                best = mode;
        if (best)
            return best;
    }
    double bestRate = 0;
    for (const auto& mode : usable)
        bestRate = std::max(bestRate, fastestRate(mode));
    // Rates such as 29.97 keep 30.
    const double keep = std::min(bestRate, kWantedRate) * 0.99;
    std::optional<CameraMode> largest; // up to 1080p
    std::optional<CameraMode> smallest;
    for (const auto& mode : usable) {
        if (fastestRate(mode) < keep)
            continue;
        if (mode.width <= kLargestWidth && mode.height <= kLargestHeight &&
            (!largest || area(mode) > area(*largest) ||
             (area(mode) == area(*largest) && better(mode, *largest))))
            largest = mode;
        if (!smallest || area(mode) < area(*smallest) ||
            (area(mode) == area(*smallest) && better(mode, *smallest)))
            smallest = mode;
    }
    return largest ? largest : smallest;
}

} // namespace orvane
