#pragma once

#include <vector>

namespace orvane {

// What the interface shows about one camera: frame size, frames in the last second, the sound
// level of each audio channel in dBFS, the frames lost so far and, of those, the frames the
// running recording lost because its encoder could not keep up. Plain value.
struct CaptureStats {
    int width = 0;
    int height = 0;
    double framesPerSecond = 0;
    std::vector<float> audioLevels;
    int droppedFrames = 0;
    int encoderDroppedFrames = 0;
    friend bool operator==(const CaptureStats&, const CaptureStats&) = default;
};

} // namespace orvane
