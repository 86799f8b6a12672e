#pragma once

#include "base/Clock.h"

#include <cstdint>
#include <map>

namespace orvane {

// A clock that stands still until a test moves it. Scheduled calls run inside advance(), in
// deadline order, with now() set to each call's deadline while it runs. Main thread only.
class ManualClock final : public Clock {
public:
    ManualClock();
    ~ManualClock() override;

    Instant now() const override { return now_; }
    WallTime wallNow() const override { return wallNow_; }
    std::unique_ptr<ScheduledCall> schedule(Seconds delay, std::function<void()> call) override;

    // Moves time forward by `by`, running every call that falls due on the way.
    void advance(Seconds by);
    void advance(double seconds) { advance(Seconds(seconds)); }
    // Sets the wall clock without moving the monotonic one (the user changed the date).
    void setWallTime(WallTime at) { wallNow_ = at; }
    // Number of calls waiting to run.
    std::size_t pendingCount() const { return calls_.size(); }

private:
    class Call;
    friend class Call;
    struct Entry {
        std::function<void()> call;
        Call* handle;
    };

    Instant now_;
    WallTime wallNow_;
    std::uint64_t nextSequence_ = 0;
    // Keyed by deadline, then by order of scheduling, so equal deadlines run first come first.
    std::map<std::pair<Instant, std::uint64_t>, Entry> calls_;
};

} // namespace orvane
