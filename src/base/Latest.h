#pragma once

#include <memory>
#include <mutex>

namespace orvane {

// The newest value of something that one thread publishes and others read, as an immutable
// snapshot. The lock covers one pointer copy or swap; nothing is built under it. Any thread.
template <class T>
class Latest {
public:
    std::shared_ptr<const T> get() const
    {
        std::lock_guard lock(mutex_);
        return value_;
    }

    void publish(std::shared_ptr<const T> next)
    {
        {
            std::lock_guard lock(mutex_);
            value_.swap(next);
        }
        // The previous snapshot is released here, outside the lock.
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<const T> value_;
};

} // namespace orvane
