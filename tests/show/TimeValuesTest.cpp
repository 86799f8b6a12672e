#include "show/FadeClock.h"
#include "show/RunningTime.h"
#include "show/ShowTime.h"

#include <QRandomGenerator>
#include <QTest>

#include <cmath>

using namespace orvane;

namespace {

const WallTime kT0 = WallTime(std::chrono::seconds(1'800'000'000));

WallTime at(double seconds)
{
    return addSeconds(kT0, seconds);
}

// One report the console makes, `time` seconds after kT0.
struct Report {
    double time;
    double fraction;
};

// A clock made the way the show data makes one when a part is first heard of at `fraction`.
FadeClock clockHeardAt(double fade, double fraction, double time)
{
    return FadeClock{fade, at(time - fraction * fade), fraction, at(time), fraction > 0};
}

} // namespace

Q_DECLARE_METATYPE(std::optional<double>)
Q_DECLARE_METATYPE(QList<Report>)
Q_DECLARE_METATYPE(FadeClock)
Q_DECLARE_METATYPE(RunningTime)
Q_DECLARE_METATYPE(Report)

class TimeValuesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void formatsTimecode_data();
    void formatsTimecode();
    void parsesTimecode_data();
    void parsesTimecode();
    void everyFrameReadsBackAsItself();
    void showTimeRunsUnlessPaused();
    void runningTime_data();
    void runningTime();
    void fadeClock_data();
    void fadeClock();
    void fadeClockReAnchorsWhenTheConsoleDisagrees_data();
    void fadeClockReAnchorsWhenTheConsoleDisagrees();
    void shownProgressIsBoundedAndNeverFallsWhileReportsRise();
};

void TimeValuesTest::formatsTimecode_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<double>("rate");
    QTest::addColumn<QString>("text");
    QTest::newRow("negative shows zero") << -5.0 << 30.0 << "00:00:00:00";
    QTest::newRow("hours wrap at 24") << 90061.5 << 25.0 << "01:01:01:12";
    QTest::newRow("last frame at 25") << 3599.999 << 25.0 << "00:59:59:24";
    QTest::newRow("29.97 never shows frame 30") << 59.9999 << 29.97 << "00:00:59:29";
    QTest::newRow("no rate shows frame 0") << 12.9 << 0.0 << "00:00:12:00";
    QTest::newRow("not a number") << std::nan("") << 25.0 << "00:00:00:00";
    QTest::newRow("far future keeps two-digit hours") << 1e12 << 25.0 << "01:46:40:00";
}

void TimeValuesTest::formatsTimecode()
{
    QFETCH(double, seconds);
    QFETCH(double, rate);
    QFETCH(QString, text);
    QCOMPARE(ShowTime::format(seconds, rate), text);
}

void TimeValuesTest::parsesTimecode_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<double>("rate");
    QTest::addColumn<std::optional<double>>("seconds");
    const std::optional<double> none;
    QTest::newRow("drop-frame separator") << "01:00:00;15" << 30.0 << std::optional(3600.5);
    QTest::newRow("frames at 25") << "01:00:00:12" << 25.0 << std::optional(3600.48);
    QTest::newRow("three pieces") << "01:02:03" << 25.0 << std::optional(3723.0);
    QTest::newRow("white space around") << "  00:00:10 \t" << 25.0 << std::optional(10.0);
    QTest::newRow("empty pieces dropped") << "01::02:03" << 25.0 << std::optional(3723.0);
    QTest::newRow("fractional seconds") << "00:00:59.5" << 25.0 << std::optional(59.5);
    QTest::newRow("plain seconds") << "12.5" << 25.0 << std::optional(12.5);
    QTest::newRow("hours unbounded") << "25:00:00" << 25.0 << std::optional(90000.0);
    QTest::newRow("minutes of 60") << "00:60:00" << 25.0 << none;
    QTest::newRow("seconds of 60") << "00:00:60" << 25.0 << none;
    QTest::newRow("negative piece") << "01:-1:00" << 25.0 << none;
    QTest::newRow("two pieces read as a number") << "1:2" << 25.0 << none;
    QTest::newRow("letters") << "soon" << 25.0 << none;
    QTest::newRow("not a number") << "nan" << 25.0 << none;
    QTest::newRow("frames with no rate") << "00:00:01:05" << 0.0 << none;
}

void TimeValuesTest::parsesTimecode()
{
    QFETCH(QString, text);
    QFETCH(double, rate);
    QFETCH(std::optional<double>, seconds);
    const auto parsed = ShowTime::parse(text, rate);
    QCOMPARE(parsed.has_value(), seconds.has_value());
    if (seconds)
        QCOMPARE(*parsed, *seconds);
}

// A timecode that QLab reports, read and shown again, must not lose a frame to rounding.
void TimeValuesTest::everyFrameReadsBackAsItself()
{
    for (const double rate : {24.0, 25.0, 30.0}) {
        for (int second : {0, 59, 3599, 86399}) {
            for (int frame = 0; frame < int(rate); ++frame) {
                const QString text = QString::asprintf("%02d:%02d:%02d:%02d", second / 3600,
                                                       second / 60 % 60, second % 60, frame);
                const auto seconds = ShowTime::parse(text, rate);
                QVERIFY2(seconds, qPrintable(text));
                QCOMPARE(ShowTime::format(*seconds, rate), text);
            }
        }
    }
}

void TimeValuesTest::showTimeRunsUnlessPaused()
{
    ShowTime time{3600, 10, at(0), false, 25};
    QCOMPARE(time.secondsAt(at(2.5)), 3612.5);
    QCOMPARE(time.secondsAt(at(-4)), 3610.0);
    QCOMPARE(ShowTime::format(time.secondsAt(at(2.5)), time.framesPerSecond), "01:00:12:12");
    time.isPaused = true;
    QCOMPARE(time.secondsAt(at(100)), 3610.0);
}

void TimeValuesTest::runningTime_data()
{
    QTest::addColumn<RunningTime>("time");
    QTest::addColumn<double>("now");
    QTest::addColumn<double>("elapsed");
    QTest::addColumn<std::optional<double>>("remaining");
    QTest::addColumn<double>("progress");
    const std::optional<double> none;
    QTest::newRow("running") << RunningTime{2, at(0), 10.0, false} << 3.0 << 5.0
                             << std::optional(5.0) << 0.5;
    QTest::newRow("paused") << RunningTime{2, at(0), 10.0, true} << 3.0 << 2.0 << std::optional(8.0)
                            << 0.2;
    QTest::newRow("sampled in the future")
        << RunningTime{2, at(5), 10.0, false} << 3.0 << 2.0 << std::optional(8.0) << 0.2;
    QTest::newRow("past its end") << RunningTime{2, at(0), 10.0, false} << 30.0 << 32.0
                                  << std::optional(0.0) << 1.0;
    QTest::newRow("unknown duration")
        << RunningTime{2, at(0), std::nullopt, false} << 3.0 << 5.0 << none << 0.0;
    QTest::newRow("zero duration")
        << RunningTime{2, at(0), 0.0, false} << 3.0 << 5.0 << none << 0.0;
    QTest::newRow("negative duration")
        << RunningTime{2, at(0), -1.0, false} << 3.0 << 5.0 << none << 0.0;
}

void TimeValuesTest::runningTime()
{
    QFETCH(RunningTime, time);
    QFETCH(double, now);
    QFETCH(double, elapsed);
    QFETCH(std::optional<double>, remaining);
    QFETCH(double, progress);
    QCOMPARE(time.elapsedAt(at(now)), elapsed);
    QCOMPARE(time.remainingAt(at(now)), remaining);
    QCOMPARE(time.progressAt(at(now)), progress);
}

// Each row: a clock, the reports taken in, then what it shows at one moment.
void TimeValuesTest::fadeClock_data()
{
    QTest::addColumn<FadeClock>("clock");
    QTest::addColumn<QList<Report>>("reports");
    QTest::addColumn<double>("now");
    QTest::addColumn<double>("shown");
    QTest::addColumn<bool>("stalled");
    QTest::addColumn<double>("remaining");

    QTest::newRow("finished whatever the time")
        << clockHeardAt(10, 0.99, 0) << QList<Report>{} << 0.5 << 1.0 << false << 0.0;
    QTest::newRow("unreported leads by 0.015 only")
        << clockHeardAt(10, 0, 0) << QList<Report>{} << 5.0 << 0.015 << false << 9.85;
    QTest::newRow("reported leads by the lead")
        << clockHeardAt(10, 0.4, 0) << QList<Report>{} << 0.55 << 0.43 << false << 5.7;
    QTest::newRow("short fade has a longer lead")
        << clockHeardAt(2, 0.4, 0) << QList<Report>{} << 0.5 << 0.5 << false << 1.0;
    QList<Report> upTo40; // a 10 s fade reported every 0.5 s, then held at 40 %
    for (int i = 1; i <= 8; ++i)
        upTo40.append(Report{0.5 * i, 0.05 * i});
    QTest::newRow("held at 40 % freezes just above it")
        << clockHeardAt(10, 0, 0) << upTo40 << 6.0 << 0.43 << true << 5.7;
    QTest::newRow("within the grace it is not held")
        << clockHeardAt(10, 0, 0) << upTo40 << 4.25 << 0.425 << false << 5.75;
    QTest::newRow("a report after the hold moves on smoothly")
        << clockHeardAt(10, 0, 0) << upTo40 + QList<Report>{{6, 0.45}} << 6.1 << 0.44 << false
        << 5.6;
    QTest::newRow("time behind the report is not held")
        << clockHeardAt(10, 0.1, 0) << QList<Report>{{0.5, 0.5}} << 4.0 << 0.5 << false << 5.0;
    QTest::newRow("console ahead then held freezes where the bar stood")
        << clockHeardAt(10, 0.1, 0) << QList<Report>{{0.5, 0.5}} << 9.0 << 0.51 << true << 4.9;
    QTest::newRow("long fade grace is 3 %")
        << clockHeardAt(100, 0.2, 0) << QList<Report>{{2, 0.22}} << 4.9 << 0.249 << false << 75.1;
    QTest::newRow("long fade held after 3 s")
        << clockHeardAt(100, 0.2, 0) << QList<Report>{{2, 0.22}} << 5.5 << 0.25 << true << 75.0;
    QTest::newRow("fade not begun yet") << FadeClock{10, at(5), 0, at(0), false}
                                        << QList<Report>{{1, 0.0}} << 2.0 << 0.0 << false << 10.0;
}

void TimeValuesTest::fadeClock()
{
    QFETCH(FadeClock, clock);
    QFETCH(QList<Report>, reports);
    QFETCH(double, now);
    QFETCH(double, shown);
    QFETCH(bool, stalled);
    QFETCH(double, remaining);
    for (const Report& report : reports)
        clock.report(report.fraction, at(report.time));
    QCOMPARE(clock.isStalled(at(now)), stalled);
    QVERIFY2(std::abs(clock.shownProgress(at(now)) - shown) < 1e-6,
             qPrintable(QString::number(clock.shownProgress(at(now)))));
    QVERIFY2(std::abs(clock.remaining(at(now)) - remaining) < 1e-6,
             qPrintable(QString::number(clock.remaining(at(now)))));
}

// Each row: a clock, one report, and where the fade is taken to have begun afterwards.
void TimeValuesTest::fadeClockReAnchorsWhenTheConsoleDisagrees_data()
{
    QTest::addColumn<FadeClock>("clock");
    QTest::addColumn<Report>("report");
    QTest::addColumn<double>("startedAt");
    QTest::addColumn<double>("advancedAt");

    const FadeClock fresh{10, at(0), 0, at(0), false};
    QTest::newRow("first rise, time ran ahead") << fresh << Report{6, 0.3} << 3.0 << 6.0;
    QTest::newRow("first rise, within the lead") << fresh << Report{6, 0.58} << 0.0 << 6.0;
    QTest::newRow("first rise, time past the end") << fresh << Report{12, 0.5} << 7.0 << 12.0;
    QTest::newRow("first rise, near the end") << fresh << Report{12, 0.98} << 0.0 << 12.0;
    QTest::newRow("first rise before the start")
        << FadeClock{10, at(5), 0, at(0), false} << Report{2, 0.3} << 5.0 << 2.0;
    QTest::newRow("first rise never falls below what was shown")
        << fresh << Report{6, 0.01} << 5.85 << 6.0;
    const FadeClock running = clockHeardAt(10, 0.5, 0); // began at -5
    QTest::newRow("console went back far") << running << Report{1, 0.3} << -2.0 << 1.0;
    QTest::newRow("console went back a little") << running << Report{0.5, 0.48} << -5.0 << 0.0;
    QTest::newRow("went back after the end") << running << Report{8, 0.3} << 5.0 << 8.0;
    QTest::newRow("late dip above 90 % keeps the anchor")
        << clockHeardAt(10, 0.95, 0) << Report{5, 0.92} << -9.5 << 0.0;
    QTest::newRow("rise while running keeps the anchor")
        << running << Report{0.5, 0.7} << -5.0 << 0.5;
    QTest::newRow("rise after a hold continues from the frozen bar")
        << running << Report{4, 0.6} << -1.3 << 4.0;
}

void TimeValuesTest::fadeClockReAnchorsWhenTheConsoleDisagrees()
{
    QFETCH(FadeClock, clock);
    QFETCH(Report, report);
    QFETCH(double, startedAt);
    QFETCH(double, advancedAt);
    clock.report(report.fraction, at(report.time));
    QVERIFY2(std::abs(secondsBetween(kT0, clock.startedAt) - startedAt) < 1e-6,
             qPrintable(QString::number(secondsBetween(kT0, clock.startedAt))));
    QCOMPARE(secondsBetween(kT0, clock.advancedAt), advancedAt);
    QCOMPARE(clock.reported, std::clamp(report.fraction, 0.0, 1.0));
    QVERIFY(clock.hasAdvanced);
}

// Random fades, consoles that run slower or faster than the fade time, holds and reports that
// only rise: the bar stays in 0...1, never leads the last report by more than the lead, and
// never moves back.
void TimeValuesTest::shownProgressIsBoundedAndNeverFallsWhileReportsRise()
{
    const quint32 seed = QRandomGenerator::global()->generate();
    QRandomGenerator random(seed);
    const auto uniform = [&](double low, double high) {
        return low + random.generateDouble() * (high - low);
    };
    constexpr double kTolerance = 1e-6; // instants are whole nanoseconds

    for (int run = 0; run < 2000; ++run) {
        const double fade = uniform(0.1, 40);
        const double firstHeard = random.bounded(3) == 0 ? 0.0 : random.bounded(90) / 100.0;
        FadeClock clock = clockHeardAt(fade, firstHeard, 0);
        const double speed = uniform(0.3, 3); // how fast the console runs against the fade time
        double time = 0;
        double console = firstHeard;
        double lastShown = clock.shownProgress(at(0));
        const auto context = [&] {
            return QStringLiteral("seed %1 run %2 fade %3 first %4 speed %5 at %6 reported %7")
                .arg(seed)
                .arg(run)
                .arg(fade)
                .arg(firstHeard)
                .arg(speed)
                .arg(time)
                .arg(clock.reported);
        };

        for (int step = 0; step < 60 && time < 4 * fade + 10; ++step) {
            const double gap = random.bounded(8) == 0 ? uniform(0.5, 3 * fade) : uniform(0, 0.3);
            const int samples = 1 + random.bounded(5);
            for (int i = 1; i <= samples; ++i) {
                const double t = time + gap * i / samples;
                const double shown = clock.shownProgress(at(t));
                QVERIFY2(shown >= 0 && shown <= 1, qPrintable(context()));
                QVERIFY2(shown <= clock.reported + clock.lead() + kTolerance,
                         qPrintable(context()));
                QVERIFY2(shown >= lastShown - kTolerance,
                         qPrintable(context() + QStringLiteral(" fell from %1 to %2 at %3")
                                                    .arg(lastShown)
                                                    .arg(shown)
                                                    .arg(t)));
                lastShown = shown;
            }
            time += gap;
            const bool held = random.bounded(6) == 0;
            if (!held)
                console = std::min(1.0, console + speed * gap / fade * uniform(0.5, 1.5));
            const double percent = std::floor(console * 100 + 1e-9);
            clock.report(std::max(clock.reported, percent / 100), at(time));
            const double shown = clock.shownProgress(at(time));
            QVERIFY2(shown >= lastShown - kTolerance,
                     qPrintable(
                         context() +
                         QStringLiteral(" report pulled %1 back to %2").arg(lastShown).arg(shown)));
            lastShown = shown;
        }
    }
}

QTEST_GUILESS_MAIN(TimeValuesTest)
#include "TimeValuesTest.moc"
