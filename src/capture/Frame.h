#pragma once

#include "base/Clock.h"

#include <cstdint>

class QImage;

namespace orvane {

// One camera picture in 32-bit BGRA (QImage::Format_RGB32 memory order), in memory that
// belongs to its camera's FramePool. The capture thread fills it and draws the overlay into
// it; from then on it is shared read-only as std::shared_ptr<const Frame> by the preview, the
// recorder and the frame sinks, and returns to the pool when the last of them lets go.
struct Frame {
    std::uint8_t* pixels = nullptr;
    int width = 0;
    int height = 0;
    int bytesPerLine = 0;
    // When the camera took the picture, on the monotonic clock and on the wall clock (the
    // moment the overlay's clock and date show).
    Instant capturedAt{};
    WallTime wallCapturedAt{};
    // The camera's frame duration in seconds (1/30 for 30 frames per second).
    double frameDuration = 0;
    // Counts the camera's frames from 0.
    std::int64_t number = 0;

    // The pixels as an image that draws into this frame's own memory, without a copy.
    QImage image();
};

} // namespace orvane
