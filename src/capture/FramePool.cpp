#include "capture/FramePool.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace orvane {

struct FramePool::Slots {
    std::mutex mutex;
    std::vector<std::uint8_t*> free;
    std::vector<std::uint8_t*> all;
    ~Slots()
    {
        for (auto* buffer : all)
            std::free(buffer);
    }
};

FramePool::FramePool(int width, int height, int count)
    : width_(width), height_(height), slots_(std::make_shared<Slots>())
{
    // Luma rows padded to 64 bytes (so chroma rows, half as long, to 32) suit the vector code
    // in the converters and encoders.
    yStride_ = (width + 63) / 64 * 64;
    lumaBytes_ = std::size_t(yStride_) * std::size_t(height);
    chromaBytes_ = std::size_t(yStride_ / 2) * std::size_t((height + 1) / 2);
    const std::size_t bytes = (lumaBytes_ + 2 * chromaBytes_ + 63) / 64 * 64;
    for (int i = 0; i < count; ++i) {
        auto* buffer = static_cast<std::uint8_t*>(std::aligned_alloc(64, bytes));
        if (!buffer)
            throw std::bad_alloc();
        // Touched now: the buffers deep in the pool are first used when the recorder falls
        // behind, and their pages would then be faulted in on the capture thread, at the worst
        // moment, and resident memory would rise by the rest of the pool in the middle of a show.
        std::memset(buffer, 0, bytes);
        slots_->all.push_back(buffer);
        slots_->free.push_back(buffer);
    }
}

std::shared_ptr<Frame> FramePool::acquire()
{
    captureThread_.check();
    std::uint8_t* buffer = nullptr;
    {
        std::lock_guard lock(slots_->mutex);
        if (slots_->free.empty())
            return nullptr;
        buffer = slots_->free.back();
        slots_->free.pop_back();
    }
    auto* frame = new Frame;
    frame->data[0] = buffer;
    frame->data[1] = buffer + lumaBytes_;
    frame->data[2] = buffer + lumaBytes_ + chromaBytes_;
    frame->stride[0] = yStride_;
    frame->stride[1] = frame->stride[2] = yStride_ / 2;
    frame->width = width_;
    frame->height = height_;
    frame->bytes = lumaBytes_ + 2 * chromaBytes_;
    return std::shared_ptr<Frame>(frame, [pool = slots_](Frame* spent) {
        {
            std::lock_guard lock(pool->mutex);
            pool->free.push_back(spent->data[0]);
        }
        delete spent;
    });
}

int FramePool::count() const
{
    return int(slots_->all.size());
}

int FramePool::freeCount() const
{
    std::lock_guard lock(slots_->mutex);
    return int(slots_->free.size());
}

} // namespace orvane
