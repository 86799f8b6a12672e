#include "base/Clock.h"

#include "base/ManualClock.h"

#include <QTimer>

namespace orvane {

namespace {

class QtCall final : public ScheduledCall {
public:
    QtCall(Seconds delay, std::function<void()> call) : call_(std::move(call))
    {
        timer_.setSingleShot(true);
        timer_.setTimerType(Qt::PreciseTimer);
        QObject::connect(&timer_, &QTimer::timeout, [this] {
            // Move the call out first: it may destroy this handle.
            auto call = std::move(call_);
            call();
        });
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(delay).count();
        timer_.start(static_cast<int>(std::max<long long>(0, ms)));
    }

private:
    QTimer timer_;
    std::function<void()> call_;
};

class SystemClock final : public Clock {
public:
    Instant now() const override { return std::chrono::steady_clock::now(); }
    WallTime wallNow() const override { return std::chrono::system_clock::now(); }
    std::unique_ptr<ScheduledCall> schedule(Seconds delay, std::function<void()> call) override
    {
        return std::make_unique<QtCall>(delay, std::move(call));
    }
};

} // namespace

Clock& Clock::system()
{
    static SystemClock clock;
    return clock;
}

void Timer::start(Seconds delay, std::function<void()> call)
{
    repeating_ = nullptr;
    pending_ = clock_->schedule(delay, [this, call = std::move(call)] {
        // The handle is spent; drop it before the call so the call may start the timer again.
        auto spent = std::move(pending_);
        call();
    });
}

void Timer::startRepeating(Seconds interval, std::function<void()> call)
{
    interval_ = interval;
    repeating_ = std::move(call);
    scheduleRepeat();
}

void Timer::scheduleRepeat()
{
    pending_ = clock_->schedule(interval_, [this] {
        auto spent = std::move(pending_);
        auto call = repeating_;
        scheduleRepeat();
        call();
    });
}

// ManualClock

class ManualClock::Call final : public ScheduledCall {
public:
    Call(ManualClock* clock, std::pair<Instant, std::uint64_t> key) : clock_(clock), key_(key) {}
    ~Call() override
    {
        if (clock_)
            clock_->calls_.erase(key_);
    }
    ManualClock* clock_;
    std::pair<Instant, std::uint64_t> key_;
};

ManualClock::ManualClock()
    : now_(Instant{} + std::chrono::hours(24 * 365))
    , wallNow_(std::chrono::sys_days{std::chrono::year{2026} / 1 / 1} + std::chrono::hours(19))
{
}

ManualClock::~ManualClock()
{
    for (auto& [key, entry] : calls_)
        entry.handle->clock_ = nullptr;
}

std::unique_ptr<ScheduledCall> ManualClock::schedule(Seconds delay, std::function<void()> call)
{
    const auto deadline =
        now_ + std::chrono::duration_cast<Instant::duration>(std::max(delay, Seconds(0)));
    const auto key = std::make_pair(deadline, nextSequence_++);
    auto handle = std::make_unique<Call>(this, key);
    calls_.emplace(key, Entry{std::move(call), handle.get()});
    return handle;
}

void ManualClock::advance(Seconds by)
{
    const auto end = now_ + std::chrono::duration_cast<Instant::duration>(by);
    while (!calls_.empty() && calls_.begin()->first.first <= end) {
        auto node = calls_.extract(calls_.begin());
        node.mapped().handle->clock_ = nullptr; // already out of the map
        const auto step = node.key().first - now_;
        now_ = node.key().first;
        wallNow_ += std::chrono::duration_cast<WallTime::duration>(step);
        node.mapped().call();
    }
    wallNow_ += std::chrono::duration_cast<WallTime::duration>(end - now_);
    now_ = end;
}

} // namespace orvane
