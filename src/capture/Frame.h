#pragma once

#include "base/Clock.h"
#include "overlay/YuvPlanes.h"

#include <cstdint>
#include <memory>

namespace orvane {

struct OverlayContent;

// One camera picture in the pipeline's layout (I420: see YuvPlanes), in memory that belongs
// to its camera's FramePool: the three planes follow one another in one buffer, the chroma
// rows half as long as the luma rows, as NDI's I420 expects. The capture thread fills it and
// blends the overlay into it; from then on it is shared read-only as
// std::shared_ptr<const Frame> by the preview, the recorder and the frame sinks, and returns
// to the pool when the last of them lets go.
struct Frame {
    // Y, Cb and Cr.
    std::uint8_t* data[3] = {nullptr, nullptr, nullptr};
    int stride[3] = {0, 0, 0};
    int width = 0;
    int height = 0;
    // The whole buffer, from data[0].
    std::size_t bytes = 0;
    // When the camera took the picture, on the monotonic clock and on the wall clock (the
    // moment the overlay's clock and date show).
    Instant capturedAt{};
    WallTime wallCapturedAt{};
    // The camera's frame duration in seconds (1/30 for 30 frames per second).
    double frameDuration = 0;
    // Counts the camera's frames from 0.
    std::int64_t number = 0;
    // The overlay drawn into it; none when nothing was drawn.
    std::shared_ptr<const OverlayContent> overlay;

    YuvPlanes planes() const
    {
        return {data[0], data[1], data[2], stride[0], stride[1], width, height};
    }
};

} // namespace orvane
