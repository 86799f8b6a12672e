// The timer on the manual and the system clock, and time arithmetic that saturates.
#include "base/Clock.h"
#include "base/ManualClock.h"

#include <QElapsedTimer>
#include <QTest>

#include <cmath>
#include <limits>

using namespace orvane;

class ClockTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void timerIsReplacedNeverDoubled()
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
        clock.advance(2.0);
        QCOMPARE(second, 1);
        // Spent once it has run. (A call that starts its timer again is the listener's retry
        // and the demo's next step.)
        QVERIFY(!timer.isActive());
    }

    void systemClockTimerFiresOnTheEventLoop()
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

    // Cue times come from the network: a fade of "99999999999" seconds must not overflow.
    void timeArithmeticSaturates_data()
    {
        QTest::addColumn<double>("seconds");
        QTest::addColumn<int>("end"); // -1: the earliest time point, 1: the latest, 0: neither
        const double inf = std::numeric_limits<double>::infinity();
        QTest::newRow("a second and a half") << 1.5 << 0;
        QTest::newRow("ten minutes back") << -600.0 << 0;
        QTest::newRow("a cue time of 99999999999") << 99999999999.0 << 1;
        QTest::newRow("99999999999 back") << -99999999999.0 << -1;
        QTest::newRow("infinity") << inf << 1;
        QTest::newRow("minus infinity") << -inf << -1;
        QTest::newRow("NaN moves nothing") << std::nan("") << 0;
    }

    void timeArithmeticSaturates()
    {
        QFETCH(double, seconds);
        QFETCH(int, end);
        ManualClock clock;
        for (const WallTime at : {clock.wallNow(), WallTime::max(), WallTime::min()}) {
            const WallTime moved = addSeconds(at, seconds);
            QVERIFY(end <= 0 || moved == WallTime::max());
            QVERIFY(end >= 0 || moved == WallTime::min());
            const double back = secondsBetween(at, moved);
            QVERIFY(std::isfinite(back));
            if (end == 0 && at == clock.wallNow())
                QCOMPARE(back, std::isnan(seconds) ? 0.0 : seconds);
        }
        const Instant moved = addSeconds(clock.now(), seconds);
        QCOMPARE(end, moved == Instant::max() ? 1 : moved == Instant::min() ? -1 : 0);
        QVERIFY(secondsBetween(Instant::min(), Instant::max()) > 9e9);
        QVERIFY(secondsBetween(Instant::max(), Instant::min()) < -9e9);
    }
};

QTEST_GUILESS_MAIN(ClockTest)
#include "ClockTest.moc"
