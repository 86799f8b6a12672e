#include "base/Clock.h"
#include "base/ManualClock.h"

#include <QElapsedTimer>
#include <QTest>

using namespace orvane;

class ClockTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void manualClockRunsCallsInDeadlineOrderAtTheirDeadline();
    void timerIsReplacedNeverDoubled();
    void repeatingTimerMayStopItselfAndCallsMayReschedule();
    void destroyingTheClockFirstLeavesHandlesHarmless();
    void systemClockTimerFiresOnTheEventLoop();
};

void ClockTest::manualClockRunsCallsInDeadlineOrderAtTheirDeadline()
{
    ManualClock clock;
    const Instant start = clock.now();
    const WallTime wallStart = clock.wallNow();
    QStringList order;
    QList<double> at;
    auto late = clock.schedule(Seconds(5), [&] {
        order << "late";
        at << secondsBetween(start, clock.now());
    });
    auto early = clock.schedule(Seconds(1), [&] {
        order << "early";
        at << secondsBetween(start, clock.now());
    });
    auto sameAsEarly = clock.schedule(Seconds(1), [&] { order << "second at 1s"; });
    auto cancelled = clock.schedule(Seconds(2), [&] { order << "cancelled"; });
    cancelled.reset();

    clock.advance(0.5);
    QVERIFY(order.isEmpty());
    clock.advance(10.0);
    QCOMPARE(order, (QStringList{"early", "second at 1s", "late"}));
    QCOMPARE(at, (QList<double>{1.0, 5.0}));
    QCOMPARE(secondsBetween(start, clock.now()), 10.5);
    QCOMPARE(secondsBetween(wallStart, clock.wallNow()), 10.5);
    QCOMPARE(clock.pendingCount(), std::size_t(0));
}

void ClockTest::timerIsReplacedNeverDoubled()
{
    ManualClock clock;
    Timer timer(clock);
    int first = 0;
    int second = 0;
    timer.start(Seconds(1), [&] { ++first; });
    timer.start(Seconds(3), [&] { ++second; });
    QCOMPARE(clock.pendingCount(), std::size_t(1));
    clock.advance(2.0);
    QCOMPARE(first, 0);
    QVERIFY(timer.isActive());
    clock.advance(2.0);
    QCOMPARE(second, 1);
    QVERIFY(!timer.isActive());
    timer.start(Seconds(1), [&] { ++second; });
    timer.stop();
    clock.advance(5.0);
    QCOMPARE(second, 1);
}

void ClockTest::repeatingTimerMayStopItselfAndCallsMayReschedule()
{
    ManualClock clock;
    Timer timer(clock);
    int ticks = 0;
    timer.startRepeating(Seconds(0.1), [&] {
        if (++ticks == 30)
            timer.stop();
    });
    clock.advance(10.0);
    QCOMPARE(ticks, 30);
    QVERIFY(!timer.isActive());

    // A one-shot call that starts its own timer again: a retry loop.
    int attempts = 0;
    std::function<void()> retry = [&] {
        if (++attempts < 4)
            timer.start(Seconds(attempts), retry);
    };
    timer.start(Seconds(1), retry);
    clock.advance(1.0 + 1 + 2 + 3);
    QCOMPARE(attempts, 4);
    QVERIFY(!timer.isActive());
}

void ClockTest::destroyingTheClockFirstLeavesHandlesHarmless()
{
    std::unique_ptr<ScheduledCall> handle;
    {
        ManualClock clock;
        handle = clock.schedule(Seconds(1), [] {});
    }
    handle.reset();
}

void ClockTest::systemClockTimerFiresOnTheEventLoop()
{
    Timer timer(Clock::system());
    bool fired = false;
    QElapsedTimer elapsed;
    elapsed.start();
    timer.start(Seconds(0.02), [&] {
        fired = true;
        timer.start(Seconds(60), [] {}); // restarting from inside the call is allowed
    });
    QTRY_VERIFY_WITH_TIMEOUT(fired, 2000);
    QVERIFY(elapsed.elapsed() >= 19);
    QVERIFY(timer.isActive());
}

QTEST_GUILESS_MAIN(ClockTest)
#include "ClockTest.moc"
