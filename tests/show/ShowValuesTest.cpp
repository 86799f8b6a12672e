// The plain values of the show: time values (timecode, running time, fade clocks) and what is
// read from messages (cue text, cue times, text values, watched addresses).
#include "show/EosCue.h"
#include "show/FadeClock.h"
#include "show/MessageText.h"
#include "show/RunningTime.h"
#include "show/ShowTime.h"

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

QString describe(const std::optional<EosCue>& cue)
{
    if (!cue)
        return QStringLiteral("no cue");
    return QStringList{cue->list,
                       cue->number,
                       cue->part.value_or("-"),
                       cue->label,
                       cue->time,
                       cue->percent ? QString::number(*cue->percent) : QStringLiteral("-")}
        .join(u'|');
}

} // namespace

Q_DECLARE_METATYPE(std::optional<double>)
Q_DECLARE_METATYPE(QList<Report>)
Q_DECLARE_METATYPE(FadeClock)
Q_DECLARE_METATYPE(RunningTime)
Q_DECLARE_METATYPE(Report)
Q_DECLARE_METATYPE(std::optional<QString>)
Q_DECLARE_METATYPE(std::vector<OSCArgument>)

class ShowValuesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void formatsTimecode_data();
    void formatsTimecode();
    void parsesTimecode_data();
    void parsesTimecode();
    void everyFrameReadsBackAsItself();
    void showTimeRunsOnlyForward();
    void runningTime_data();
    void runningTime();
    void fadeClock_data();
    void fadeClock();
    void fadeClockReAnchorsWhenTheConsoleDisagrees_data();
    void fadeClockReAnchorsWhenTheConsoleDisagrees();
    void parsesCueText_data();
    void parsesCueText();
    void readsCueTimes_data();
    void readsCueTimes();
    void turnsArgumentsIntoText_data();
    void turnsArgumentsIntoText();
    void matchesWatchedAddresses_data();
    void matchesWatchedAddresses();
};

void ShowValuesTest::formatsTimecode_data()
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

void ShowValuesTest::formatsTimecode()
{
    QFETCH(double, seconds);
    QFETCH(double, rate);
    QFETCH(QString, text);
    QCOMPARE(ShowTime::format(seconds, rate), text);
}

void ShowValuesTest::parsesTimecode_data()
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

void ShowValuesTest::parsesTimecode()
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
void ShowValuesTest::everyFrameReadsBackAsItself()
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

// Pausing is the QLab client test's; a sample from the future must not run the time back.
void ShowValuesTest::showTimeRunsOnlyForward()
{
    const ShowTime time{3600, 10, at(0), false, 25};
    QCOMPARE(time.secondsAt(at(2.5)), 3612.5);
    QCOMPARE(time.secondsAt(at(-4)), 3610.0);
}

void ShowValuesTest::runningTime_data()
{
    QTest::addColumn<RunningTime>("time");
    QTest::addColumn<double>("now");
    QTest::addColumn<double>("elapsed");
    QTest::addColumn<std::optional<double>>("remaining");
    QTest::addColumn<double>("progress");
    const std::optional<double> none;
    // Pausing and a sample in the future are the overlay's rows; these are the limits.
    const auto row = [](const char* name, std::optional<double> duration, double now,
                        double elapsed, std::optional<double> remaining, double progress) {
        QTest::newRow(name) << RunningTime{2, at(0), duration, false} << now << elapsed
                            << remaining << progress;
    };
    row("running", 10.0, 3, 5, 5.0, 0.5);
    row("past its end", 10.0, 30, 32, 0.0, 1);
    row("unknown duration", none, 3, 5, none, 0);
    row("zero duration", 0.0, 3, 5, none, 0);
    row("negative duration", -1.0, 3, 5, none, 0);
}

void ShowValuesTest::runningTime()
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
void ShowValuesTest::fadeClock_data()
{
    QTest::addColumn<FadeClock>("clock");
    QTest::addColumn<QList<Report>>("reports");
    QTest::addColumn<double>("now");
    QTest::addColumn<double>("shown");
    QTest::addColumn<bool>("stalled");
    QTest::addColumn<double>("remaining");
    const auto row = [](const char* name, FadeClock clock, QList<Report> reports, double now,
                        double shown, bool stalled, double remaining) {
        QTest::newRow(name) << clock << reports << now << shown << stalled << remaining;
    };
    row("finished whatever the time", clockHeardAt(10, 0.99, 0), {}, 0.5, 1, false, 0);
    row("unreported leads by 0.015 only", clockHeardAt(10, 0, 0), {}, 5, 0.015, false, 9.85);
    row("reported leads by the lead", clockHeardAt(10, 0.4, 0), {}, 0.55, 0.43, false, 5.7);
    row("short fade has a longer lead", clockHeardAt(2, 0.4, 0), {}, 0.5, 0.5, false, 1);
    QList<Report> upTo40; // a 10 s fade reported every 0.5 s, then held at 40 %
    for (int i = 1; i <= 8; ++i)
        upTo40.append(Report{0.5 * i, 0.05 * i});
    row("held at 40 % freezes just above it", clockHeardAt(10, 0, 0), upTo40, 6, 0.43, true, 5.7);
    row("within the grace it is not held", clockHeardAt(10, 0, 0), upTo40, 4.25, 0.425, false,
        5.75);
    row("a report after the hold moves on smoothly", clockHeardAt(10, 0, 0),
        upTo40 + QList<Report>{{6, 0.45}}, 6.1, 0.44, false, 5.6);
    row("time behind the report is not held", clockHeardAt(10, 0.1, 0), {{0.5, 0.5}}, 4, 0.5, false,
        5);
    row("console ahead then held freezes where the bar stood", clockHeardAt(10, 0.1, 0),
        {{0.5, 0.5}}, 9, 0.51, true, 4.9);
    row("long fade grace is 3 %", clockHeardAt(100, 0.2, 0), {{2, 0.22}}, 4.9, 0.249, false, 75.1);
    row("long fade held after 3 s", clockHeardAt(100, 0.2, 0), {{2, 0.22}}, 5.5, 0.25, true, 75);
    row("fade not begun yet", FadeClock{10, at(5), 0, at(0), false}, {{1, 0.0}}, 2, 0, false, 10);
}

void ShowValuesTest::fadeClock()
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
    QCOMPARE(QString::number(clock.shownProgress(at(now)), 'f', 6), QString::number(shown, 'f', 6));
    QCOMPARE(QString::number(clock.remaining(at(now)), 'f', 6), QString::number(remaining, 'f', 6));
}

// Each row: a clock, one report, and where the fade is taken to have begun afterwards.
void ShowValuesTest::fadeClockReAnchorsWhenTheConsoleDisagrees_data()
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

void ShowValuesTest::fadeClockReAnchorsWhenTheConsoleDisagrees()
{
    QFETCH(FadeClock, clock);
    QFETCH(Report, report);
    QFETCH(double, startedAt);
    QFETCH(double, advancedAt);
    clock.report(report.fraction, at(report.time));
    QCOMPARE(QString::number(secondsBetween(kT0, clock.startedAt), 'f', 6),
             QString::number(startedAt, 'f', 6));
    QCOMPARE(secondsBetween(kT0, clock.advancedAt), advancedAt);
    QCOMPARE(clock.reported, report.fraction);
    QVERIFY(clock.hasAdvanced);
}

void ShowValuesTest::parsesCueText_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("cue"); // list|number|part|label|time|percent
    const auto row = [](const char* name, const char* text, const char* cue) {
        QTest::newRow(name) << QString::fromUtf8(text) << cue;
    };
    row("cue with time and percent", "1/14 Opening Number 5 45%", "1|14|-|Opening Number|5|45");
    row("part in the token, two digits, list 2", "2/7P13 Cyc Colour Change 2 50%",
        "2|7|13|Cyc Colour Change|2|50");
    row("lower-case part in the token", "1/14p2 Chase 4 30%", "1|14|2|Chase|4|30");
    row("Part as its own piece", "1/14 Part3 Chase 4 30%", "1|14|3|Chase|4|30");
    row("part word in lower case", "1/14 part3 Chase 4", "1|14|3|Chase|4|-");
    row("PART in capitals is a label", "1/14 PART3 Chase", "1|14|-|PART3 Chase||-");
    row("part piece only right after the token", "1/14 Chase p2 4", "1|14|-|Chase p2|4|-");
    row("part 0 is no part", "1/14P0 Label 3", "1|14|-|Label|3|-");
    row("point cue without a list", "30.5 Pickup", "|30.5|-|Pickup||-");
    row("several spaces", "  1/14   Opening    Number   5   45%  ", "1|14|-|Opening Number|5|45");
    row("label with a percent inside", "1/14 50% Off Sale 5 45%", "1|14|-|50% Off Sale|5|45");
    row("percent that is no number stays in the label", "1/14 Label 5 x%", "1|14|-|Label 5 x%||-");
    row("token only", "1/14", "1|14|-|||-");
    row("only spaces", "    ", "no cue");
    row("dotted version is no cue", "14.5.1 Label", "no cue");
    row("part marker alone is no cue", "P2 Label", "no cue");
}

void ShowValuesTest::parsesCueText()
{
    QFETCH(QString, text);
    QFETCH(QString, cue);
    const std::optional<EosCue> parsed = EosCue::parse(text);
    QCOMPARE(describe(parsed), cue);
    QVERIFY(!parsed || !parsed->partLabel);
}

void ShowValuesTest::readsCueTimes_data()
{
    QTest::addColumn<QString>("time");
    QTest::addColumn<std::optional<double>>("seconds");
    const std::optional<double> none;
    QTest::newRow("seconds") << "5" << std::optional(5.0);
    QTest::newRow("hours too") << "1:02:30" << std::optional(3750.0);
    QTest::newRow("missing minutes") << ":30" << none;
    QTest::newRow("four pieces") << "1:2:3:4" << none;
    QTest::newRow("letters") << "5s" << none;
}

void ShowValuesTest::readsCueTimes()
{
    QFETCH(QString, time);
    QFETCH(std::optional<double>, seconds);
    QCOMPARE(EosCue::durationOf(time), seconds);
}

// The text value of a message (its first argument), and what a watched address shows (every
// argument, floats in the user's locale).
void ShowValuesTest::turnsArgumentsIntoText_data()
{
    QTest::addColumn<std::vector<OSCArgument>>("arguments");
    QTest::addColumn<std::optional<QString>>("text");
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("watched");
    const auto row = [](const char* name, std::vector<OSCArgument> arguments,
                        std::optional<QString> text, const char* locale, const char* watched) {
        QTest::newRow(name) << arguments << text << locale << QString::fromUtf8(watched);
    };
    const std::vector<OSCArgument> mixed{
        std::int32_t(3), 0.5f, std::string("go"), true, false, QByteArray("blob"), OSCNull{}};
    row("int", {std::int32_t(-42)}, "-42", "en_US", "-42");
    row("whole float", {1.0f}, "1.0", "en_US", "1");
    row("float shortest, not its binary value", {0.1f}, "0.1", "en_US", "0.1");
    row("two fraction digits at most, grouped", {1234.567f}, "1234.567", "en_US", "1,234.57");
    row("string", {std::string("Act 1 · Scene 2")}, QString::fromUtf8("Act 1 · Scene 2"), "en_US",
        "Act 1 · Scene 2");
    row("every kind, English", mixed, "3", "en_US", "3 0.5 go On Off");
    row("every kind, German", mixed, "3", "de_DE", "3 0,5 go On Off");
    row("bool first", {true, std::string("a")}, std::nullopt, "en_US", "On a");
    row("no argument", {}, std::nullopt, "en_US", "");
}

void ShowValuesTest::turnsArgumentsIntoText()
{
    QFETCH(std::vector<OSCArgument>, arguments);
    QFETCH(std::optional<QString>, text);
    QFETCH(QString, locale);
    QFETCH(QString, watched);
    QCOMPARE(messageTextValue(OSCMessage{"/x", arguments}), text);
    QCOMPARE(watchedValueText(arguments, QLocale(locale)), watched);
}

void ShowValuesTest::matchesWatchedAddresses_data()
{
    QTest::addColumn<QString>("watched");
    QTest::addColumn<QString>("address");
    QTest::addColumn<bool>("matches");
    const auto row = [](const char* name, const char* watched, const char* address, bool matches) {
        QTest::newRow(name) << watched << address << matches;
    };
    row("prefix", "/cue/*", "/cue/1/start", true);
    row("prefix itself", "/cue/*", "/cue/", true);
    row("prefix is not a word", "/cue/*", "/cues", false);
    row("prefix keeps case", "/cue/*", "/CUE/1", false);
    row("star alone", "*", "/anything", true);
    row("exact is not a prefix", "/fader/1", "/fader/10", false);
    row("exact keeps case", "/fader/1", "/Fader/1", false);
    row("star only at the end", "/a*/b", "/ax/b", false);
}

void ShowValuesTest::matchesWatchedAddresses()
{
    QFETCH(QString, watched);
    QFETCH(QString, address);
    QFETCH(bool, matches);
    QCOMPARE(watchedAddressMatches(WatchedAddress{QUuid::createUuid(), "Label", watched}, address),
             matches);
}

QTEST_GUILESS_MAIN(ShowValuesTest)
#include "ShowValuesTest.moc"
