#pragma once

#include <QString>

#include <optional>
#include <vector>

namespace orvane {

// The frame rates a camera offers for one pixel format and size, in frames per second.
struct FrameRateRange {
    double minimum = 0;
    double maximum = 0;
    friend bool operator==(const FrameRateRange&, const FrameRateRange&) = default;
};

// One way a camera can deliver pictures: a pixel format at a size with its frame rates.
// Plain value.
struct CameraMode {
    QString pixelFormat;     // FFmpeg's name for it: "yuyv422", "mjpeg", ...
    bool compressed = false; // decoded with FFmpeg (MJPEG from a UVC camera)
    int width = 0;
    int height = 0;
    double bytesPerPixel = 2; // of a raw format
    std::vector<FrameRateRange> rates;
    friend bool operator==(const CameraMode&, const CameraMode&) = default;

    // The range with the highest maximum; the first wins a tie. None when there are none.
    static std::optional<FrameRateRange> fastest(const std::vector<FrameRateRange>& ranges);

    // Raw pictures take this many bytes a second at most; beyond it several cameras on one
    // USB 2 bus no longer fit (the driver answers "No space left on device"): a quarter of
    // the bus's isochronous bandwidth.
    static constexpr double kRawBytesPerSecond = 24'576'000.0 / 4;

    // The mode to open, given the camera's current mode and all it offers: the current one,
    // unless its raw pictures at their fastest rate would not fit and a compressed format
    // is offered at the same size, which is taken instead.
    static CameraMode choose(const CameraMode& active, const std::vector<CameraMode>& offered);
};

} // namespace orvane
