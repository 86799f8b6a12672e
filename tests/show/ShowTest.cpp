// The show: its plain values (time values, what is read from messages), the show data that
// consoles and panels feed, and the demo show that plays through it.
#include "show/DemoShow.h"
#include "show/EosCue.h"
#include "show/FadeClock.h"
#include "show/MessageText.h"
#include "show/RunningTime.h"
#include "show/ShowData.h"
#include "show/ShowTime.h"

#include "base/ManualClock.h"
#include "support/Golden.h"

#include <QHash>
#include <QSignalSpy>
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

// Plays a conversation with the show data, each step as a console or a panel would say it:
//   "fire 1/14", "fire 1/14/2"       a cue fire event (list/number[/part])
//   "active 1/14P2 Chase 4 30%"     active cue text ("active" alone sends an empty text)
//   "/any/address some text"        a message with that text (none when there is no text)
//   "wait 1.5"                      the clock moves on
void play(ShowData& show, ManualClock& clock, const QStringList& steps,
          const QString& sender = QStringLiteral("console"))
{
    for (const QString& step : steps) {
        const QString verb = step.section(u' ', 0, 0);
        const QString rest = step.section(u' ', 1);
        std::vector<OSCArgument> text{rest.toStdString()};
        if (verb == u"wait")
            clock.advance(rest.toDouble());
        else if (verb == u"fire")
            show.handle({"/eos/out/event/cue/" + rest.toStdString() + "/fire", {}}, sender);
        else if (verb == u"active")
            show.handle({"/eos/out/active/cue/text", text}, sender);
        else
            show.handle({verb.toStdString(), rest.isEmpty() ? decltype(text){} : text}, sender);
    }
}

QString describe(const QList<EosCuePart>& parts)
{
    QStringList rows;
    for (const EosCuePart& part : parts)
        rows.append(QStringLiteral("%1:%2:%3").arg(part.number, part.label).arg(part.percent));
    return rows.join(QStringLiteral(" | "));
}

QString describe(const ShowCommand& command)
{
    const QString kind =
        QStringList{"marker", "layout", "start", "stop", "toggle"}[int(command.kind)];
    return command.text.isEmpty() ? kind : kind + u' ' + command.text;
}

QString describe(const QList<ShowField>& fields)
{
    QStringList rows;
    for (const ShowField& field : fields)
        rows.append(field.id + " " + field.label + "=" + field.value);
    return rows.join(QStringLiteral(" | "));
}

// Every message the demo sends, one line each with its moment since `start`: "   1.50  /a "x"".
struct Trace {
    Trace(DemoShow& demo, ManualClock& clock)
    {
        demo.setOnMessageForTesting([this, &clock, start = clock.now()](const OSCMessage& m) {
            QString line = QString::asprintf("%8.2f  %s", secondsBetween(start, clock.now()),
                                             m.address.c_str());
            for (const OSCArgument& argument : m.arguments) {
                const auto* text = std::get_if<std::string>(&argument);
                line += text ? " \"" + QString::fromStdString(*text) + '"'
                             : QStringLiteral(" (not a string)");
            }
            lines.append(line);
            if (onLine)
                onLine(line);
        });
    }
    QStringList lines;
    std::function<void(const QString&)> onLine;
};

// The lines without their moments.
QStringList texts(const QStringList& lines)
{
    QStringList result;
    for (const QString& line : lines)
        result.append(line.mid(10));
    return result;
}

} // namespace

Q_DECLARE_METATYPE(std::optional<double>)
Q_DECLARE_METATYPE(QList<Report>)
Q_DECLARE_METATYPE(FadeClock)
Q_DECLARE_METATYPE(RunningTime)
Q_DECLARE_METATYPE(Report)
Q_DECLARE_METATYPE(std::optional<QString>)
Q_DECLARE_METATYPE(std::vector<OSCArgument>)

class ShowTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void formatsTimecode_data()
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

    void formatsTimecode()
    {
        QFETCH(double, seconds);
        QFETCH(double, rate);
        QTEST(ShowTime::format(seconds, rate), "text");
    }

    void parsesTimecode_data()
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

    void parsesTimecode()
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
    void everyFrameReadsBackAsItself()
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
    void showTimeRunsOnlyForward()
    {
        const ShowTime time{3600, 10, at(0), false, 25};
        QCOMPARE(time.secondsAt(at(2.5)), 3612.5);
        QCOMPARE(time.secondsAt(at(-4)), 3610.0);
    }

    void runningTime_data()
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

    void runningTime()
    {
        QFETCH(RunningTime, time);
        QFETCH(double, now);
        QTEST(time.elapsedAt(at(now)), "elapsed");
        QTEST(time.remainingAt(at(now)), "remaining");
        QTEST(time.progressAt(at(now)), "progress");
    }

    // Each row: a clock, the reports taken in, then what it shows at one moment.
    void fadeClock_data()
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
        row("held at 40 % freezes just above it", clockHeardAt(10, 0, 0), upTo40, 6, 0.43, true,
            5.7);
        row("within the grace it is not held", clockHeardAt(10, 0, 0), upTo40, 4.25, 0.425, false,
            5.75);
        row("a report after the hold moves on smoothly", clockHeardAt(10, 0, 0),
            upTo40 + QList<Report>{{6, 0.45}}, 6.1, 0.44, false, 5.6);
        row("time behind the report is not held", clockHeardAt(10, 0.1, 0), {{0.5, 0.5}}, 4, 0.5,
            false, 5);
        row("console ahead then held freezes where the bar stood", clockHeardAt(10, 0.1, 0),
            {{0.5, 0.5}}, 9, 0.51, true, 4.9);
        row("long fade grace is 3 %", clockHeardAt(100, 0.2, 0), {{2, 0.22}}, 4.9, 0.249, false,
            75.1);
        row("long fade held after 3 s", clockHeardAt(100, 0.2, 0), {{2, 0.22}}, 5.5, 0.25, true,
            75);
        row("fade not begun yet", FadeClock{10, at(5), 0, at(0), false}, {{1, 0.0}}, 2, 0, false,
            10);
    }

    void fadeClock()
    {
        QFETCH(FadeClock, clock);
        QFETCH(QList<Report>, reports);
        QFETCH(double, now);
        QFETCH(double, shown);
        QFETCH(double, remaining);
        for (const Report& report : reports)
            clock.report(report.fraction, at(report.time));
        QTEST(clock.isStalled(at(now)), "stalled");
        QCOMPARE(QString::number(clock.shownProgress(at(now)), 'f', 6),
                 QString::number(shown, 'f', 6));
        QCOMPARE(QString::number(clock.remaining(at(now)), 'f', 6),
                 QString::number(remaining, 'f', 6));
    }

    // Each row: a clock, one report, and where the fade is taken to have begun afterwards.
    void fadeClockReAnchorsWhenTheConsoleDisagrees_data()
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

    void fadeClockReAnchorsWhenTheConsoleDisagrees()
    {
        QFETCH(FadeClock, clock);
        QFETCH(Report, report);
        QFETCH(double, startedAt);
        clock.report(report.fraction, at(report.time));
        QCOMPARE(QString::number(secondsBetween(kT0, clock.startedAt), 'f', 6),
                 QString::number(startedAt, 'f', 6));
        QTEST(secondsBetween(kT0, clock.advancedAt), "advancedAt");
        QCOMPARE(clock.reported, report.fraction);
        QVERIFY(clock.hasAdvanced);
    }

    void parsesCueText_data()
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
        row("several spaces", "  1/14   Opening    Number   5   45%  ",
            "1|14|-|Opening Number|5|45");
        row("label with a percent inside", "1/14 50% Off Sale 5 45%", "1|14|-|50% Off Sale|5|45");
        row("percent that is no number stays in the label", "1/14 Label 5 x%",
            "1|14|-|Label 5 x%||-");
        row("token only", "1/14", "1|14|-|||-");
        row("only spaces", "    ", "no cue");
        row("dotted version is no cue", "14.5.1 Label", "no cue");
        row("part marker alone is no cue", "P2 Label", "no cue");
    }

    void parsesCueText()
    {
        QFETCH(QString, text);
        const std::optional<EosCue> parsed = EosCue::parse(text);
        QTEST(describe(parsed), "cue");
        QVERIFY(!parsed || !parsed->partLabel);
    }

    void readsCueTimes_data()
    {
        QTest::addColumn<QString>("time");
        QTest::addColumn<std::optional<double>>("seconds");
        const std::optional<double> none;
        QTest::newRow("hours too") << "1:02:30" << std::optional(3750.0);
        QTest::newRow("missing minutes") << ":30" << none;
        QTest::newRow("four pieces") << "1:2:3:4" << none;
        QTest::newRow("letters") << "5s" << none;
    }

    void readsCueTimes()
    {
        QFETCH(QString, time);
        QTEST(EosCue::durationOf(time), "seconds");
    }

    // The text value of a message (its first argument), and what a watched address shows (every
    // argument, floats in the user's locale).
    void turnsArgumentsIntoText_data()
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
        row("string", {std::string("Act 1 · Scene 2")}, QString::fromUtf8("Act 1 · Scene 2"),
            "en_US", "Act 1 · Scene 2");
        row("every kind, English", mixed, "3", "en_US", "3 0.5 go On Off");
        row("every kind, German", mixed, "3", "de_DE", "3 0,5 go On Off");
        row("bool first", {true, std::string("a")}, std::nullopt, "en_US", "On a");
        row("no argument", {}, std::nullopt, "en_US", "");
    }

    void turnsArgumentsIntoText()
    {
        QFETCH(std::vector<OSCArgument>, arguments);
        QFETCH(QString, locale);
        QTEST(messageTextValue(OSCMessage{"/x", arguments}), "text");
        QTEST(watchedValueText(arguments, QLocale(locale)), "watched");
    }

    void matchesWatchedAddresses_data()
    {
        QTest::addColumn<QString>("watched");
        QTest::addColumn<QString>("address");
        QTest::addColumn<bool>("matches");
        const auto row = [](const char* name, const char* watched, const char* address,
                            bool matches) { QTest::newRow(name) << watched << address << matches; };
        row("prefix", "/cue/*", "/cue/1/start", true);
        row("prefix itself", "/cue/*", "/cue/", true);
        row("prefix is not a word", "/cue/*", "/cues", false);
        row("prefix keeps case", "/cue/*", "/CUE/1", false);
        row("star alone", "*", "/anything", true);
        row("exact is not a prefix", "/fader/1", "/fader/10", false);
        row("exact keeps case", "/fader/1", "/Fader/1", false);
        row("star only at the end", "/a*/b", "/ax/b", false);
    }

    void matchesWatchedAddresses()
    {
        QFETCH(QString, watched);
        QFETCH(QString, address);
        QTEST(watchedAddressMatches(WatchedAddress{QUuid::createUuid(), "Label", watched}, address),
              "matches");
    }

    // Each value notifies once however often the console repeats it. After 30 s of silence the
    // console no longer counts as heard, checked every 2 s.
    void takesEosOutputAndWhoSentItUntilItFallsSilent()
    {
        ManualClock clock;
        ShowData show(clock);
        QSignalSpy name(&show, &ShowData::showNameChanged);
        QSignalSpy sender(&show, &ShowData::eosSenderChanged);
        QSignalSpy hearing(&show, &ShowData::isHearingEosChanged);
        QSignalSpy pending(&show, &ShowData::pendingCueChanged);
        QSignalSpy active(&show, &ShowData::activeCueChanged);
        QSignalSpy parts(&show, &ShowData::activePartsChanged);
        for (int i = 0; i < 3; ++i)
            play(show, clock,
                 {"/eos/out/show/name Demo Musical", "active 1/14 Opening 5 45%",
                  "/eos/out/pending/cue/text 1/20 Town Square 4",
                  "/eos/out/previous/cue/text 1/10 Overture 3 100%", "/eos/out/some/other/thing 3"},
                 "10.0.0.5");
        QCOMPARE(show.showName(), std::optional<QString>("Demo Musical"));
        QCOMPARE(show.activeCue()->token(), "1/14");
        QCOMPARE(show.pendingCue()->token(), "1/20");
        QCOMPARE(show.previousCue()->token(), "1/10");
        QCOMPARE(show.lastEosMessage(), std::optional(clock.wallNow()));
        QCOMPARE(show.activeCueSampledAt(), clock.wallNow());
        QCOMPARE(show.lastReceived(),
                 std::optional<QString>("/eos/out/some/other/thing 3 from 10.0.0.5"));
        for (const QSignalSpy* spy : {&name, &sender, &hearing, &pending, &active})
            QCOMPARE(spy->count(), 1);
        QCOMPARE(parts.count(), 0); // a cue without parts keeps the parts list empty

        // No text clears a cue; only output under /eos/out/ is Eos output. Heard last at 30 s.
        play(show, clock, {"wait 30", "/eos/out/pending/cue/text"}, "10.0.0.9");
        play(show, clock, {"/eos/in/show/name Other"}, "elsewhere");
        QCOMPARE(show.pendingCue(), std::nullopt);
        QCOMPARE(show.eosSender(), std::optional<QString>("10.0.0.9"));
        QCOMPARE(show.showName(), std::optional<QString>("Demo Musical"));
        clock.advance(30.9);
        QVERIFY(show.isHearingEos()); // the tick at 60 s finds exactly 30 s of silence
        clock.advance(1.0);
        QVERIFY(show.isHearingEos()); // not checked again before 62 s
        clock.advance(0.2);
        QVERIFY(!show.isHearingEos());
        QCOMPARE(hearing.count(), 2);
    }

    // The parts list follows the console: a fire of a new cue starts a new list; a part's fire or
    // its text adds or updates its entry; the cue itself joins as part 1 beside other parts.
    void keepsThePartsOfTheActiveCue_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QString>("parts"); // then the running part
        const auto row = [](const char* name, QStringList steps, const char* parts) {
            QTest::newRow(name) << steps << parts;
        };
        row("a cue without parts lists none", {"fire 1/14", "active 1/14 Opening 5 45%"}, " 1");
        row("a part's fire adds it beside the cue itself",
            {"fire 1/14", "active 1/14 Opening 5 10%", "fire 1/14/2"}, "1:Opening:10 | 2::0 2");
        row("the cue's text updates part 1",
            {"fire 1/14", "active 1/14 Opening 5 10%", "active 1/14P2 Chase 4 30%",
             "active 1/14 Opening 5 60%"},
            "1:Opening:60 | 2:Chase:30 1");
        row("parts in numeric order",
            {"active 1/14P10 Ten 1 1%", "active 1/14P2 Two 1 2%", "active 1/14 p3 Three 1 3%",
             "fire 1/14/12"},
            "2:Two:2 | 3:Three:3 | 10:Ten:1 | 12::0 12");
        row("a repeated fire changes nothing",
            {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 1/14/2"}, "2:Chase:50 2");
        row("a part fired again starts over",
            {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 1/14/3", "fire 1/14/2"},
            "2:Chase:0 | 3::0 2");
        row("a fire of a new cue starts a new list",
            {"fire 1/14", "active 1/14P2 Chase 4 50%", "fire 1/15"}, " 1");
        row("a fire of the same cue keeps the list",
            {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 1/14"}, "1::0 | 2:Chase:50 1");
        row("a fire in another list starts a new list",
            {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "fire 2/14/3"}, "3::0 3");
        row("the text of another cue starts a new list",
            {"fire 1/14/2", "active 1/14P2 Chase 4 50%", "active 1/15P2 Next 3 5%"}, "2:Next:5 2");
        row("an empty active text clears the list", {"active 1/14P2 Chase 4 50%", "active"}, " ");
        row("part 0 is the cue itself", {"fire 1/14/0", "active 1/14P0 Opening 5 20%"}, " 1");
        row("part 1 is the cue itself",
            {"fire 1/14/1", "active 1/14P3 Cyc 2 20%", "active 1/14 Opening 5 40%"},
            "1:Opening:40 | 3:Cyc:20 1");
        row("percent clamped, none is done",
            {"active 1/14P2 Over 4 250%", "active 1/14P3 Under 4 -5%", "active 1/14P4 Silent 4"},
            "2:Over:100 | 3:Under:0 | 4:Silent:100 4");
    }

    void keepsThePartsOfTheActiveCue()
    {
        QFETCH(QStringList, steps);
        QFETCH(QString, parts);
        ManualClock clock;
        ShowData show(clock);
        play(show, clock,
             steps + QStringList{"/eos/out/pending/cue/text 1/99 Later 3",
                                 "/eos/out/previous/cue/text 1/9 Before 3 100%"});
        QCOMPARE(describe(show.activeParts()) + u' ' + show.runningPart().value_or(""), parts);
    }

    // Each row: what the console said, then the fade clock of the active cue (part "") or of one
    // part: "fade startedAt reported", startedAt in seconds after the first step; "" for none.
    void clocksTheActiveCueAndEachPart_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QString>("part");
        QTest::addColumn<QString>("clock");
        const auto row = [](const char* name, QStringList steps, const char* part,
                            const char* clock) { QTest::newRow(name) << steps << part << clock; };
        const auto active = [](const char* text) {
            return QStringList{"active 1/1 Earlier 3 50%", "wait 2",
                               QStringLiteral("active ") + text};
        };
        row("cue part way", active("1/14 Opening 10 40%"), "", "10 -2 0.4");
        row("cue just fired", active("1/14 Opening 10 0%"), "", "10 2 0");
        row("cue under one percent is not begun", active("1/14 Opening 10 -3%"), "", "10 2 0");
        row("cue without percent is done", active("1/14 Opening 10"), "", "10 -8 1");
        row("cue over a hundred is done", active("1/14 Opening 10 150%"), "", "10 -8 1");
        row("cue in minutes and seconds", active("1/14 Long 2:30 50%"), "", "150 -73 0.5");
        row("cue without time", active("1/14 Opening 45%"), "", "");
        row("cue of zero time", active("1/14 Snap 0 45%"), "", "");
        row("fire seen: the fade began at the fire",
            {"fire 1/14/2", "wait 1", "active 1/14P2 Chase 4 10%"}, "2", "4 0 0.1");
        row("no fire seen: placed by its percent", {"wait 1", "active 1/14P2 Chase 4 10%"}, "2",
            "4 0.6 0.1");
        row("fire longer ago than the fade: placed by its percent",
            {"fire 1/14/2", "wait 5", "active 1/14P2 Chase 4 10%"}, "2", "4 4.6 0.1");
        row("fire of another part: placed by its percent",
            {"fire 1/14/3", "wait 1", "active 1/14P2 Chase 4 10%"}, "2", "4 0.6 0.1");
        row("fire of another cue: placed by its percent",
            {"fire 1/13/2", "wait 1", "active 1/14P2 Chase 4 10%"}, "2", "4 0.6 0.1");
        row("the cue's own fire starts part 1",
            {"fire 1/14", "active 1/14P2 Chase 4 0%", "wait 1", "active 1/14 Opening 5 10%"}, "1",
            "5 0 0.1");
        row("a later report goes to the same clock",
            {"fire 1/14/2", "wait 1", "active 1/14P2 Chase 4 25%", "wait 0.5",
             "active 1/14P2 Chase 4 40%"},
            "2", "4 0 0.4");
        row("part in minutes and seconds", {"wait 10", "active 1/14P2 Slow 1:00 10%"}, "2",
            "60 4 0.1");
        row("part without time", {"active 1/14P2 Chase 30%"}, "2", "");
        row("a part's fire without text has no clock yet", {"fire 1/14/2"}, "2", "");
    }

    void clocksTheActiveCueAndEachPart()
    {
        QFETCH(QStringList, steps);
        QFETCH(QString, part);
        QFETCH(QString, clock);
        ManualClock time;
        ShowData show(time);
        const WallTime start = time.wallNow();
        play(show, time, steps);
        std::optional<FadeClock> fade = show.activeCueClock();
        const QList<EosCuePart> parts = show.activeParts();
        const auto entry = std::find_if(parts.begin(), parts.end(), [&](const EosCuePart& each) {
            return each.number == part;
        });
        if (!part.isEmpty()) {
            QVERIFY(entry != parts.end());
            fade = entry->clock;
            QCOMPARE(entry->sampledAt, time.wallNow());
            QVERIFY(entry->hasText || clock.isEmpty());
        }
        const QString described =
            fade ? QStringList{QString::number(fade->fade),
                               QString::number(secondsBetween(start, fade->startedAt)),
                               QString::number(fade->reported)}
                       .join(u' ')
                 : QString();
        QCOMPARE(described, clock);
        if (fade) {
            QCOMPARE(fade->hasAdvanced, fade->reported > 0);
            QCOMPARE(fade->advancedAt, time.wallNow());
        }
    }

    void takesCommandsAndFields_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<std::vector<OSCArgument>>("arguments");
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("fields");
        using Arguments = std::vector<OSCArgument>;
        const auto row = [](const char* name, const char* address, Arguments arguments,
                            const char* command, const char* fields = "") {
            QTest::newRow(name) << address << arguments << command << fields;
        };
        const auto text = [](const char* value) { return Arguments{std::string(value)}; };
        row("start", "/tavrin/record/start", {}, "start");
        row("start in any case", "/TAVRIN/Record/Start", {}, "start");
        row("stop", "/tavrin/record/stop", {}, "stop");
        row("record anything toggles", "/tavrin/record/pause", {}, "toggle");
        row("start with more toggles", "/tavrin/record/start/now", {}, "toggle");
        row("marker with empty text", "/tavrin/marker", text(""), "marker Marker");
        row("layout", "/tavrin/layout", text("Wide Shot"), "layout Wide Shot");
        row("layout keeps its case", "/Tavrin/LAYOUT", text("Close"), "layout Close");
        row("layout with empty name", "/tavrin/layout", text(""), "");
        row("layout without name", "/tavrin/layout", {}, "");
        row("field", "/tavrin/field/Scene", text("Act 1"), "", "/tavrin/field/Scene Scene=Act 1");
        row("field label keeps case and joins words", "/TAVRIN/FIELD/Stage/left", text("open"), "",
            "/TAVRIN/FIELD/Stage/left Stage left=open");
        row("field without value", "/tavrin/field/Empty", {}, "", "/tavrin/field/Empty Empty=");
        row("field alone", "/tavrin/field", text("x"), "");
        row("unknown command", "/tavrin/explode", text("x"), "");
        row("not the prefix", "/tavrinx/record/start", {}, "");
    }

    void takesCommandsAndFields()
    {
        QFETCH(QString, address);
        QFETCH(std::vector<OSCArgument>, arguments);
        ManualClock clock;
        ShowData show(clock);
        QStringList commands;
        show.setOnCommand([&](const ShowCommand& raised) { commands.append(describe(raised)); });
        show.handle({address.toStdString(), arguments}, "panel");
        QTEST(commands.join(u','), "command");
        QTEST(describe(show.fields()), "fields");
        QVERIFY(!show.isHearingEos());
    }

    // A field keeps the place where it was first heard; it notifies when its value or its time of
    // arrival changes. A watched address shows as a field under its own label, the first that
    // matches, and the message still does what it does.
    void fieldsKeepTheirFirstPositionAndWatchedAddressesJoinThem()
    {
        ManualClock clock;
        ShowData show(clock);
        QSignalSpy changed(&show, &ShowData::fieldsChanged);
        // The same value at the same moment is no change; arriving again later is.
        play(show, clock,
             {"/tavrin/field/Scene Act 1", "/tavrin/field/Sound Q 1", "/tavrin/field/Sound Q 1"});
        QCOMPARE(changed.count(), 2);
        play(show, clock,
             {"wait 2", "/tavrin/field/Scene Act 2", "/TAVRIN/field/Scene Other",
              "/tavrin/field/Sound Q 1"});
        QCOMPARE(changed.count(), 5);
        QCOMPARE(show.fields()[0].receivedAt, clock.wallNow());

        QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
        show.setWatchedAddresses({{QUuid::createUuid(), "Cue", "/cue/*"},
                                  {QUuid::createUuid(), "Cue one", "/cue/1"},
                                  {QUuid::createUuid(), "Fader", "/fader/1"},
                                  {QUuid::createUuid(), "Console", "/eos/out/active/*"},
                                  {QUuid::createUuid(), "Marks", "/tavrin/marker"}});
        QStringList commands;
        show.setOnCommand([&](const ShowCommand& raised) { commands.append(describe(raised)); });
        show.handle({"/cue/1", {std::string("go"), std::int32_t(3)}}, "panel");
        show.handle({"/fader/1", {0.75f, true}}, "panel");
        play(show, clock,
             {"/cues no", "/fader/10 0.5", "active 1/14 Opening 5 45%", "/tavrin/marker Lift"});
        QLocale::setDefault(QLocale::system());
        QCOMPARE(describe(show.fields()), "/tavrin/field/Scene Scene=Act 2 | "
                                          "/tavrin/field/Sound Sound=Q 1 | "
                                          "/TAVRIN/field/Scene Scene=Other | /cue/* Cue=go 3 | "
                                          "/fader/1 Fader=0,75 On | "
                                          "/eos/out/active/* Console=1/14 Opening 5 45% | "
                                          "/tavrin/marker Marks=Lift");
        QCOMPARE(commands, QStringList{"marker Lift"});
        QCOMPARE(show.activeCue()->token(), "1/14");
    }

    void raisesCueChangesAndClearingForgetsTheShow()
    {
        ManualClock clock;
        ShowData show(clock);
        QStringList raised;
        show.setOnCueChange([&](const std::optional<EosCue>& cue) {
            raised.append(cue ? cue->token() + " " + cue->label : QStringLiteral("none"));
        });
        // A change of the cue's number or list raises one; its percent or a part does not.
        play(show, clock,
             {"active 1/14 Opening 5 0%", "active 1/14 Opening 5 50%", "active 1/14P2 Chase 4 10%",
              "active 1/15 Town 3", "active 2/15 Other list 3", "active", "active",
              "active 1/15 Town 3", "/eos/out/show/name Show", "fire 1/14",
              "active 1/14 Opening 5 45%", "active 1/14P2 Chase 4 10%",
              "/eos/out/pending/cue/text 1/15 Next 3", "/eos/out/previous/cue/text 1/13 Before 3",
              "/tavrin/field/Scene Act 1"});
        QCOMPARE(raised, (QStringList{"1/14 Opening", "1/15 Town", "2/15 Other list", "none",
                                      "1/15 Town", "1/14 Opening"}));
        QVERIFY(!show.activeParts().isEmpty());

        play(show, clock, {"/TAVRIN/Clear"}, "panel");
        QCOMPARE(show.showName(), std::nullopt);
        QCOMPARE(show.activeCue(), std::nullopt);
        QCOMPARE(show.pendingCue(), std::nullopt);
        QCOMPARE(show.previousCue(), std::nullopt);
        QVERIFY(show.activeParts().isEmpty());
        QCOMPARE(show.activeCueClock(), std::nullopt);
        QVERIFY(show.fields().isEmpty());
        QCOMPARE(show.eosSender(), std::nullopt);
        QCOMPARE(show.lastEosMessage(), std::nullopt);
        QCOMPARE(show.lastFire(), std::nullopt);
        QCOMPARE(show.reportedCueNumber(), std::nullopt);
        QCOMPARE(show.runningPart(), std::nullopt);
        QVERIFY(!show.isHearingEos());
        QCOMPARE(show.lastReceived(), std::optional<QString>("/TAVRIN/Clear  from panel"));

        // The same cue heard again after clearing is a change, and its repeated fire counts anew.
        play(show, clock, {"fire 1/14", "active 1/14 Opening 5 45%", "fire 1/14/2"});
        QCOMPARE(raised.last(), "1/14 Opening");
        QCOMPARE(raised.size(), 7);
        QCOMPARE(describe(show.activeParts()), "1:Opening:45 | 2::0");
    }

    // The golden file holds every message but the fade reports in between, which follow from their
    // fire: one per tick from the fire on, the whole percent of (elapsed / fade), tracks in the
    // order they fired within a tick, up to the 100 % kept in the file.
    void playsOneWholeLoopOfTheScript()
    {
        ManualClock clock;
        ShowData show(clock);
        DemoShow demo([&show](const OSCMessage& m) { show.handle(m, DemoShow::kSender); }, clock);
        Trace trace(demo, clock);
        demo.start();
        const auto presetFires = [&] {
            return trace.lines.filter(QStringLiteral("/cue/1/1/fire")).size();
        };
        for (int step = 0; step < 4000 && presetFires() < 2; ++step)
            clock.advance(DemoShow::kTick);
        clock.advance(0.01); // finish the tick in which the script wrapped round
        demo.stop();
        QCOMPARE(presetFires(), 2);

        QString kept;
        QStringList fired;                      // tokens of the current cue's tracks, in fire order
        QHash<QString, double> firedAt, lastAt; // by token ("1/14", "1/14P2")
        double tickAt = -1;
        qsizetype trackInTick = -1;
        for (const QString& line : std::as_const(trace.lines)) {
            const double at = line.left(8).toDouble();
            const QString address = line.mid(10).section(u' ', 0, 0);
            if (address.startsWith("/eos/out/event/cue/1/")) {
                const QStringList numbers = address.split(u'/').mid(6, 2);
                const QString token =
                    "1/" + numbers[0] + (numbers[1] == "fire" ? QString() : "P" + numbers[1]);
                if (!token.contains(u'P'))
                    fired.clear();
                fired.append(token);
                firedAt[token] = at;
                lastAt.remove(token);
            }
            if (address != "/eos/out/active/cue/text") {
                kept += line + u'\n';
                continue;
            }
            const QStringList words = line.section(u'"', 1, 1).split(u' ');
            const QString& token = words.first();
            const double fade = words[words.size() - 2].toDouble();
            const int percent = words.last().chopped(1).toInt();
            const double fraction = std::min((at - firedAt[token]) / fade + 1e-9, 1.0);
            QVERIFY2(percent == int(fraction * 100), qPrintable(line));
            QVERIFY2(std::abs(at - lastAt.value(token, firedAt[token] - DemoShow::kTick) -
                              DemoShow::kTick) < 1e-6,
                     qPrintable(line));
            lastAt[token] = at;
            const qsizetype track = fired.indexOf(token);
            QVERIFY2(track >= 0 && (at != tickAt || track > trackInTick), qPrintable(line));
            tickAt = at;
            trackInTick = track;
            if (percent == 100)
                kept += line + u'\n';
        }
        const auto golden = testing::compareWithGolden(
            kept.toUtf8(), QStringLiteral(ORVANE_TEST_DATA "/expected/demo_loop.txt"));
        QVERIFY2(golden.matches, qPrintable(golden.difference));

        // The show data took it all in under the sender "Demo".
        QCOMPARE(show.eosSender(), std::optional<QString>("Demo"));
        QCOMPARE(show.previousCue()->token(), "1/99");
        QCOMPARE(show.fields().size(), 2);
    }

    void stopsAndStartsOverFromPreset_data()
    {
        QTest::addColumn<QString>("stopOn");   // stop from inside the message that has this text
        QTest::addColumn<double>("stopAfter"); // or stop from outside after this many seconds
        QTest::addColumn<bool>("restart");     // start again instead of stopping
        QTest::newRow("from outside, mid-fade") << "" << 1.05 << false;
        QTest::newRow("from outside, in a hold") << "" << 5.5 << false;
        QTest::newRow("from a cue change mid-fade") << "1/1 Preset 3.0 50%" << 0.0 << false;
        QTest::newRow("from a pending text") << "pending/cue/text \"1/6" << 0.0 << false;
        QTest::newRow("restarted from a message mid-fade")
            << "1/1P2 Curtain Warmers 4.0 25%" << 0.0 << true;
    }

    void stopsAndStartsOverFromPreset()
    {
        QFETCH(QString, stopOn);
        QFETCH(double, stopAfter);
        QFETCH(bool, restart);
        ManualClock clock;
        DemoShow demo([](const OSCMessage&) {}, clock);
        Trace trace(demo, clock);
        QSignalSpy running(&demo, &DemoShow::isRunningChanged);
        QSignalSpy showTime(&demo, &DemoShow::showTimeChanged);
        qsizetype stoppedAt = -1;
        const auto stopOrRestart = [&] {
            stoppedAt = trace.lines.size();
            restart ? demo.start() : demo.stop();
        };
        trace.onLine = [&](const QString& line) {
            if (!stopOn.isEmpty() && stoppedAt < 0 && line.contains(stopOn))
                stopOrRestart();
        };

        clock.advance(7.0);
        const WallTime startedAt = clock.wallNow();
        demo.start();
        QCOMPARE(demo.showTime(), (ShowTime{3600, 0, startedAt, false, 25}));
        if (stopOn.isEmpty()) {
            clock.advance(stopAfter);
            stopOrRestart();
        }
        for (int i = 0; i < 400 && stoppedAt < 0; ++i)
            clock.advance(DemoShow::kTick);
        QVERIFY(stoppedAt > 0);

        if (!restart) {
            clock.advance(120.0);
            QCOMPARE(trace.lines.size(), stoppedAt);
            QVERIFY(!demo.isRunning());
            QCOMPARE(demo.showTime(), std::nullopt);
            QCOMPARE(running.count(), 2);
            QCOMPARE(showTime.count(), 2);
            demo.start();
        }
        // Only the new run goes on, and it plays exactly as the first did: no previous cue, the
        // preset again, its first fade report one tick later.
        clock.advance(0.1);
        QCOMPARE(texts(trace.lines.mid(stoppedAt)), texts(trace.lines.mid(0, 7)));
        QVERIFY(demo.isRunning());
    }
};

QTEST_GUILESS_MAIN(ShowTest)
#include "ShowTest.moc"
