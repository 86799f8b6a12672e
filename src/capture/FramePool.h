#pragma once

#include "base/Checks.h"
#include "capture/Frame.h"

#include <memory>
#include <mutex>
#include <vector>

namespace orvane {

// A fixed set of I420 frame buffers (about 3 MB at 1080p) for one camera, made when the camera starts, so no pixel memory
// is allocated per frame. acquire() on the capture thread; frames come back from any thread.
class FramePool {
public:
    FramePool(int width, int height, int count);
    FramePool(const FramePool&) = delete;
    FramePool& operator=(const FramePool&) = delete;

    // A free buffer to fill, or nullptr when every buffer is still in use (the frame is then
    // dropped). The buffer returns to the pool when the last reference goes, even if the pool
    // has been destroyed by then.
    std::shared_ptr<Frame> acquire();

    int width() const { return width_; }
    int height() const { return height_; }
    int count() const;
    int freeCount() const;

private:
    struct Slots;
    ThreadCheck captureThread_; // the thread that made it acquires
    int width_;
    int height_;
    int yStride_ = 0;
    std::size_t lumaBytes_ = 0;
    std::size_t chromaBytes_ = 0;
    std::shared_ptr<Slots> slots_;
};

} // namespace orvane
