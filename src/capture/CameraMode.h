#pragma once

#include <QSize>
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

    // The pictures of the largest size Orvane records.
    static constexpr int kLargestWidth = 1920;
    static constexpr int kLargestHeight = 1080;
    // The rate a camera is asked to keep, where it can.
    static constexpr double kWantedRate = 30;

    // The mode to open from all a camera offers, whatever size it was left at: the largest
    // picture up to 1920 x 1080 that keeps the camera's best rate up to 30 frames a second
    // (1080p30 where the camera has it), raw where raw pictures fit on the bus (no decoding),
    // else compressed. `wanted`, a size the settings ask for, wins where it is offered. None
    // when nothing is offered.
    static std::optional<CameraMode> choose(const std::vector<CameraMode>& offered,
                                            std::optional<QSize> wanted = std::nullopt);
};

} // namespace orvane
