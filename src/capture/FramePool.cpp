#include "capture/FramePool.h"

#include <cstdlib>
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
    const std::size_t bytes = std::size_t(width) * std::size_t(height) * 4;
    for (int i = 0; i < count; ++i) {
        // 64-byte alignment suits the vector code in the converters and encoders.
        auto* buffer = static_cast<std::uint8_t*>(std::aligned_alloc(64, (bytes + 63) / 64 * 64));
        if (!buffer)
            throw std::bad_alloc();
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
    frame->pixels = buffer;
    frame->width = width_;
    frame->height = height_;
    frame->bytesPerLine = width_ * 4;
    return std::shared_ptr<Frame>(frame, [pool = slots_](Frame* spent) {
        {
            std::lock_guard lock(pool->mutex);
            pool->free.push_back(spent->pixels);
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
