#pragma once

#include <QDateTime>

#include <chrono>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>

namespace orvane {

// Seconds as a double, the unit of every duration in Orvane.
using Seconds = std::chrono::duration<double>;
// A monotonic instant: timeouts, ticks, keep-alives and retries are measured on it.
using Instant = std::chrono::steady_clock::time_point;
// A wall-clock instant: dates shown to people and time stamps sampled from the show.
using WallTime = std::chrono::system_clock::time_point;

namespace clockdetail {

// to - from in the time points' own ticks, saturated instead of overflowing.
template <class TimePoint> typename TimePoint::rep ticksBetween(TimePoint from, TimePoint to)
{
    using Rep = typename TimePoint::rep;
    Rep ticks = 0;
    if (!__builtin_sub_overflow(to.time_since_epoch().count(), from.time_since_epoch().count(),
                                &ticks))
        return ticks;
    return to > from ? std::numeric_limits<Rep>::max() : std::numeric_limits<Rep>::min();
}

template <class TimePoint> double secondsBetween(TimePoint from, TimePoint to)
{
    using Duration = typename TimePoint::duration;
    return std::chrono::duration_cast<Seconds>(Duration(ticksBetween(from, to))).count();
}

} // namespace clockdetail

// The seconds from `from` to `to`. Time points any distance apart give a finite answer.
inline double secondsBetween(Instant from, Instant to)
{
    return clockdetail::secondsBetween(from, to);
}
inline double secondsBetween(WallTime from, WallTime to)
{
    return clockdetail::secondsBetween(from, to);
}

// `at` moved by `seconds`. The result saturates at the ends of the time point's range, so any
// number (a cue time from the network, a fade of 1e300 s, infinity) is safe; NaN moves nothing.
template <class TimePoint> TimePoint addSeconds(TimePoint at, double seconds)
{
    using Rep = typename TimePoint::rep;
    using Period = typename TimePoint::period;
    static_assert(std::numeric_limits<Rep>::is_integer);
    if (std::isnan(seconds))
        return at;
    const double ticks = seconds * double(Period::den) / double(Period::num);
    // Both limits are powers of two, so the comparisons are exact.
    constexpr double kLimit = -double(std::numeric_limits<Rep>::min());
    if (ticks >= kLimit)
        return TimePoint::max();
    if (ticks <= -kLimit)
        return TimePoint::min();
    Rep moved = 0;
    if (__builtin_add_overflow(at.time_since_epoch().count(), static_cast<Rep>(ticks), &moved))
        return ticks > 0 ? TimePoint::max() : TimePoint::min();
    return TimePoint(typename TimePoint::duration(moved));
}

// A wall-clock instant as a QDateTime (UTC), to the millisecond.
inline QDateTime toDateTime(WallTime at)
{
    return QDateTime::fromMSecsSinceEpoch(
        std::chrono::duration_cast<std::chrono::milliseconds>(at.time_since_epoch()).count(),
        Qt::UTC);
}

// A pending call made by Clock::schedule. Destroying it cancels the call.
class ScheduledCall {
public:
    virtual ~ScheduledCall() = default;
};

// The source of time for everything that waits. SystemClock is the real one; a test passes
// a ManualClock and moves it forward, so a 120 s timer costs no real time.
class Clock {
public:
    virtual ~Clock() = default;
    virtual Instant now() const = 0;
    virtual WallTime wallNow() const = 0;

    // Calls `call` once, `delay` from now, on the calling thread (which must run a Qt event
    // loop for the system clock). The call is cancelled when the returned handle dies.
    [[nodiscard]] virtual std::unique_ptr<ScheduledCall> schedule(Seconds delay,
                                                                  std::function<void()> call) = 0;

    // The process-wide real clock.
    static Clock& system();
};

// One cancellable pending call, replaced and never doubled: start() cancels what was pending.
// Lives on the thread that uses it.
class Timer {
public:
    explicit Timer(Clock& clock)
        : clock_(&clock)
    {
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Calls `call` once after `delay`.
    void start(Seconds delay, std::function<void()> call);
    // Calls `call` every `interval` until stopped; the next call is scheduled before this one
    // runs, so `call` may stop or restart the timer.
    void startRepeating(Seconds interval, std::function<void()> call);
    void stop() { pending_.reset(); }
    bool isActive() const { return pending_ != nullptr; }
    Clock& clock() const { return *clock_; }

private:
    void scheduleRepeat();

    Clock* clock_;
    std::unique_ptr<ScheduledCall> pending_;
    Seconds interval_{0};
    std::function<void()> repeating_;
};

} // namespace orvane
