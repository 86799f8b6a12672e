#include "overlay/OverlayPart.h"

#include <QTest>

#include <cmath>

Q_DECLARE_METATYPE(orvane::OverlayPart)

using namespace orvane;

namespace {

const WallTime t0 = WallTime(std::chrono::seconds(1'800'000'000));

WallTime at(double seconds)
{
    return addSeconds(t0, seconds);
}

OverlayPart stored(double progress)
{
    OverlayPart part;
    part.progress = progress;
    return part;
}

OverlayPart qlab(double elapsed, std::optional<double> duration, bool paused = false,
                 double sampledAt = 0)
{
    OverlayPart part;
    part.running = RunningTime{elapsed, at(sampledAt), duration, paused};
    return part;
}

// A 10 s fade that started at t0 and was last reported at `reported` 3 s in.
OverlayPart fading(double reported, double storedProgress = 0)
{
    OverlayPart part;
    part.progress = storedProgress;
    FadeClock clock;
    clock.fade = 10;
    clock.startedAt = t0;
    clock.reported = reported;
    clock.advancedAt = at(3);
    clock.hasAdvanced = true;
    part.clock = clock;
    return part;
}

} // namespace

// The derived values of a row at chosen instants: what the bar, the pause sign and the
// status figure show.
class OverlayPartTest : public QObject {
    Q_OBJECT

private slots:
    void derivedValues_data()
    {
        QTest::addColumn<OverlayPart>("part");
        QTest::addColumn<double>("instant");
        QTest::addColumn<double>("progress");
        QTest::addColumn<bool>("paused");
        QTest::addColumn<QString>("status");

        QTest::newRow("stored 40 %") << stored(0.4) << 0.0 << 0.4 << false << "40%";
        QTest::newRow("stored 99.9 % truncates") << stored(0.999) << 0.0 << 0.999 << false << "99%";
        QTest::newRow("stored above 1 is done") << stored(1.7) << 0.0 << 1.0 << false << "Done";
        QTest::newRow("stored below 0 is 0") << stored(-0.2) << 0.0 << 0.0 << false << "0%";
        QTest::newRow("stored not a number is 0")
            << stored(std::nan("")) << 0.0 << 0.0 << false << "0%";

        QTest::newRow("qlab counts down")
            << qlab(12, 45) << 3.0 << 15.0 / 45 << false << "-30.000s";
        QTest::newRow("qlab millisecond figure")
            << qlab(0, 10) << 1.2344 << 0.12344 << false << "-8.766s";
        QTest::newRow("qlab at its end is done") << qlab(12, 45) << 33.0 << 1.0 << false << "Done";
        QTest::newRow("qlab past its end is done")
            << qlab(12, 45) << 50.0 << 1.0 << false << "Done";
        QTest::newRow("qlab unknown length counts up")
            << qlab(73.4, std::nullopt) << 1.3 << 0.0 << false << "+74.7s";
        QTest::newRow("qlab zero length counts up")
            << qlab(2, 0.0) << 0.5 << 0.0 << false << "+2.5s";
        QTest::newRow("qlab paused stands still")
            << qlab(21, 60, true) << 10.0 << 0.35 << true << "-39.000s";
        QTest::newRow("qlab sampled in the future")
            << qlab(12, 45, false, 5) << 0.0 << 12.0 / 45 << false << "-33.000s";

        QTest::newRow("fade under way") << fading(0.3) << 3.1 << 0.31 << false << "-6.900s";
        QTest::newRow("fade runs a lead ahead at most")
            << fading(0.3) << 3.5 << 0.33 << false << "-6.700s";
        QTest::newRow("fade held on the console freezes")
            << fading(0.3) << 6.0 << 0.33 << true << "-6.700s";
        QTest::newRow("fade reported 99 % is done")
            << fading(0.99) << 3.0 << 1.0 << false << "Done";
        QTest::newRow("fade wins over the stored progress")
            << fading(0.3, 0.9) << 3.1 << 0.31 << false << "-6.900s";
        OverlayPart both = fading(0.3);
        both.running = RunningTime{5, t0, 20.0, false};
        QTest::newRow("running time wins over a fade")
            << both << 0.0 << 0.25 << false << "-15.000s";
    }

    void derivedValues()
    {
        QFETCH(OverlayPart, part);
        QFETCH(double, instant);
        QFETCH(double, progress);
        QFETCH(bool, paused);
        QFETCH(QString, status);

        const WallTime now = at(instant);
        QVERIFY2(std::abs(part.progressAt(now) - progress) < 1e-9,
                 qPrintable(QString::number(part.progressAt(now), 'g', 12)));
        QCOMPARE(part.isPausedAt(now), paused);
        QCOMPARE(part.statusAt(now), status);
        QCOMPARE(part.isCompleteAt(now), progress >= 1);
    }
};

QTEST_APPLESS_MAIN(OverlayPartTest)
#include "OverlayPartTest.moc"
