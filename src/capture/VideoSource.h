#pragma once

#include "base/Clock.h"

#include <optional>

namespace orvane {

struct Frame;

// Where one camera's pictures come from: a Video4Linux2 device or the built-in test pattern.
// Capture thread only.
class VideoSource {
public:
    enum class Wait {
        frameReady, // readFrame() will deliver a picture
        nothingYet, // try again
        lost,       // the device went away or failed; no more pictures come
    };

    virtual ~VideoSource() = default;

    virtual int width() const = 0;
    virtual int height() const = 0;
    // Seconds between pictures at the rate the camera runs.
    virtual double frameDuration() const = 0;

    // Waits at most `limit` for the next picture.
    virtual Wait waitForFrame(Seconds limit) = 0;
    // Puts the waiting picture into `frame`'s I420 planes (sized width() x height()), converted
    // at most once, and returns
    // when it was presented on the monotonic clock, if the device says.
    virtual std::optional<Instant> readFrame(Frame& frame) = 0;
    // Throws the waiting picture away (no buffer was free for it).
    virtual void skipFrame() = 0;
    // The pictures the source itself lost (late wake-ups, gaps in the device's sequence)
    // since the last call.
    virtual int takeLostFrames() { return 0; }
};

} // namespace orvane
