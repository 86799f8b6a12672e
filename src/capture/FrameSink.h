#pragma once

#include <memory>

namespace orvane {

struct Frame;

// Something that takes every composited frame of a camera: the web viewer's JPEG encoder, the
// NDI sender. Called on the capture thread, outside every lock; it must return at once and
// keep the frame (never copy it) if it needs it later, skipping frames it has no time for.
class FrameSink {
public:
    virtual ~FrameSink() = default;
    virtual void takeFrame(std::shared_ptr<const Frame> frame, double frameDuration) = 0;
};

} // namespace orvane
