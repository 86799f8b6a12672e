#include "show/DemoShow.h"
#include "support/Golden.h"

#include "base/ManualClock.h"
#include "show/ShowData.h"

#include <QFile>
#include <QSignalSpy>
#include <QTest>

using namespace orvane;

namespace {

// The demo's messages go straight into the show data, as the application's input hands them.
DemoShow::Deliver deliverTo(ShowData& show)
{
    return [&show](const OSCMessage& message) { show.handle(message, DemoShow::kSender); };
}

// Every message the demo sends, one line each with its moment since the demo started.
class Trace {
public:
    Trace(DemoShow& demo, ManualClock& clock)
        : clock_(clock)
        , start_(clock.now())
    {
        demo.setOnMessageForTesting([this](const OSCMessage& message) { record(message); });
    }

    void record(const OSCMessage& message)
    {
        QString line = QString::asprintf("%8.2f  ", secondsBetween(start_, clock_.now())) +
                       QString::fromStdString(message.address);
        for (const OSCArgument& argument : message.arguments) {
            if (const auto* text = std::get_if<std::string>(&argument))
                line += QStringLiteral(" \"%1\"").arg(QString::fromStdString(*text));
            else
                line += QStringLiteral(" (not a string)");
        }
        lines.append(line);
        messages.append(message);
        if (onLine)
            onLine(line);
    }

    // The moment of the first line after `from` that contains `text`, or -1.
    double momentOf(const QString& text, qsizetype from = 0) const
    {
        for (qsizetype i = from; i < lines.size(); ++i) {
            if (lines[i].contains(text))
                return lines[i].section(u' ', 0, 0, QString::SectionSkipEmpty).toDouble();
        }
        return -1;
    }

    QStringList lines;
    QList<OSCMessage> messages;
    std::function<void(const QString&)> onLine;

private:
    ManualClock& clock_;
    Instant start_;
};

QString goldenPath(const char* name)
{
    return QStringLiteral(ORVANE_TEST_DATA "/expected/") + QLatin1String(name);
}

} // namespace

class DemoShowTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void writesCueTextLikeAConsole();
    void playsOneWholeLoopOfTheScript();
    void restartsFromPreset();
    void stoppingSendsNothingMore_data();
    void stoppingSendsNothingMore();
    void runsTheShowTimeWhileRunning();
};

void DemoShowTest::writesCueTextLikeAConsole()
{
    const QList<DemoShow::Cue>& script = DemoShow::script();
    QCOMPARE(script.size(), 13);
    const DemoShow::Cue& opening = script[4];
    QCOMPARE(DemoShow::cueText(opening, nullptr, 45), "1/14 Opening Number 5.0 45%");
    QCOMPARE(DemoShow::cueText(opening, &opening.parts[0], 30), "1/14P2 Chase Starts 4.0 30%");
    QCOMPARE(DemoShow::cueText(script[6], nullptr, std::nullopt), "1/22 Lead Enters 1.5");
    QCOMPARE(DemoShow::cueText(script[9], &script[9].parts[0], 100),
             "1/40P2 Button Flash 0.5 100%");
    QCOMPARE(DemoShow::cueText(script[8], nullptr, 0), "1/30.5 Follow Spot Pickup 2.0 0%");
    QCOMPARE(*script[4].scene, QString::fromUtf8("Act One \u00b7 Scene One"));

    // The show data reads the demo's texts back as the cues they describe.
    const auto parsed = EosCue::parse(DemoShow::cueText(opening, &opening.parts[1], 50));
    QVERIFY(parsed);
    QCOMPARE(parsed->token(), "1/14");
    QCOMPARE(parsed->part, std::optional<QString>("3"));
    QCOMPARE(parsed->label, "Cyc Colour Change");
    QCOMPARE(parsed->time, "2.0");
    QCOMPARE(parsed->percent, std::optional(50));
}

void DemoShowTest::playsOneWholeLoopOfTheScript()
{
    ManualClock clock;
    ShowData show(clock);
    DemoShow demo(deliverTo(show), clock);
    Trace trace(demo, clock);
    demo.start();
    const auto presetFires = [&] {
        return trace.lines.filter(QStringLiteral("/eos/out/event/cue/1/1/fire")).size();
    };
    for (int step = 0; step < 4000 && presetFires() < 2; ++step)
        clock.advance(DemoShow::kTick);
    QCOMPARE(presetFires(), 2);
    // Finish the tick in which the script wrapped round, then stop.
    clock.advance(0.01);
    demo.stop();

    const QString actual = trace.lines.join(u'\n') + u'\n';
    const auto golden = testing::compareWithGolden(actual.toUtf8(), goldenPath("demo_loop.txt"));
    QVERIFY2(golden.matches, qPrintable(golden.difference));

    // The moments the script promises, read from the trace itself.
    QVERIFY(!trace.lines[1].contains(u"previous"));
    QCOMPARE(trace.momentOf(QStringLiteral("previous/cue/text \"1/1 Preset 3.0 100%\"")),
             trace.momentOf(QStringLiteral("/eos/out/event/cue/1/5/fire")));
    const double ensemble = trace.momentOf(QStringLiteral("/eos/out/event/cue/1/40/fire"));
    QCOMPARE(trace.momentOf(QStringLiteral("/eos/out/event/cue/1/40/2/fire")) - ensemble, 0.3);
    QCOMPARE(trace.momentOf(QStringLiteral("1/40P2 Button Flash 0.5 100%")) - ensemble, 0.8);
    const qsizetype wrap = trace.lines.lastIndexOf(
        QRegularExpression(QStringLiteral(".*/eos/out/event/cue/1/1/fire$")));
    QVERIFY(trace.lines[wrap - 4].endsWith(u"\"1/99 Interval 5.0 100%\""));
    QVERIFY(trace.lines[wrap - 3].endsWith(u"\"1/5 House to Half 3.0\""));

    // Every track ends on exactly one message at 100 %.
    for (const DemoShow::Cue& cue : DemoShow::script()) {
        const QString done = DemoShow::cueText(cue, nullptr, 100);
        QCOMPARE(trace.lines.filter("active/cue/text \"" + done + "\"").size(), 1);
    }

    // The show data took it all in under the sender "Demo".
    QCOMPARE(show.showName(), std::optional<QString>("Demo Musical"));
    QCOMPARE(show.eosSender(), std::optional<QString>("Demo"));
    QCOMPARE(show.previousCue()->token(), "1/99");
    QCOMPARE(show.fields().size(), 2);
    QCOMPARE(show.fields()[0].value, "Preshow");
    QCOMPARE(show.fields()[1].value, QString::fromUtf8("Q 1 \u00b7 House Music"));
}

void DemoShowTest::restartsFromPreset()
{
    ManualClock clock;
    ShowData show(clock);
    DemoShow demo(deliverTo(show), clock);
    Trace trace(demo, clock);
    demo.start();
    clock.advance(20.0);
    demo.stop();
    const qsizetype stoppedAt = trace.lines.size();
    clock.advance(10.0);
    QCOMPARE(trace.lines.size(), stoppedAt);

    demo.start();
    const QStringList restart = trace.lines.mid(stoppedAt);
    QCOMPARE(restart.size(), 6);
    QVERIFY(restart[0].endsWith(u"/eos/out/show/name \"Demo Musical\""));
    QVERIFY(restart[1].endsWith(u"/eos/out/pending/cue/text \"1/5 House to Half 3.0\""));
    QVERIFY(restart[2].endsWith(u"/tavrin/field/Scene \"Preshow\""));
    QVERIFY(
        restart[3].endsWith(QString::fromUtf8("/tavrin/field/Sound \"Q 1 \u00b7 House Music\"")));
    QVERIFY(restart[4].endsWith(u"/eos/out/event/cue/1/1/fire"));
    QVERIFY(restart[5].endsWith(u"/eos/out/active/cue/text \"1/1 Preset 3.0 0%\""));

    // Starting while running starts over too.
    clock.advance(4.0);
    const qsizetype runningAt = trace.lines.size();
    demo.start();
    QCOMPARE(trace.lines.size() - runningAt, 6);
    QVERIFY(trace.lines[runningAt + 1].contains(u"pending"));
    clock.advance(0.1);
    QVERIFY(trace.lines.last().endsWith(u"\"1/1 Preset 3.0 3%\""));
}

void DemoShowTest::stoppingSendsNothingMore_data()
{
    QTest::addColumn<QString>("stopOn");   // stop from inside the message that has this text
    QTest::addColumn<double>("stopAfter"); // or stop from outside after this many seconds
    QTest::addColumn<bool>("restart");     // start again instead of stopping
    QTest::newRow("from outside, mid-fade") << "" << 1.05 << false;
    QTest::newRow("from outside, in a hold") << "" << 5.5 << false;
    QTest::newRow("from a cue change mid-fade") << "1/1 Preset 3.0 50%" << 0.0 << false;
    QTest::newRow("from a part's fire") << "/eos/out/event/cue/1/1/2/fire" << 0.0 << false;
    QTest::newRow("from a pending text") << "pending/cue/text \"1/6" << 0.0 << false;
    QTest::newRow("restarted from a message mid-fade")
        << "1/1P2 Curtain Warmers 4.0 25%" << 0.0 << true;
}

void DemoShowTest::stoppingSendsNothingMore()
{
    QFETCH(QString, stopOn);
    QFETCH(double, stopAfter);
    QFETCH(bool, restart);
    ManualClock clock;
    ShowData show(clock);
    DemoShow demo(deliverTo(show), clock);
    Trace trace(demo, clock);
    QSignalSpy running(&demo, &DemoShow::isRunningChanged);
    QSignalSpy showTime(&demo, &DemoShow::showTimeChanged);
    qsizetype stoppedAt = -1;
    trace.onLine = [&](const QString& line) {
        if (stopOn.isEmpty() || stoppedAt >= 0 || !line.contains(stopOn))
            return;
        stoppedAt = trace.lines.size();
        if (restart)
            demo.start();
        else
            demo.stop();
    };

    demo.start();
    if (stopOn.isEmpty()) {
        clock.advance(stopAfter);
        demo.stop();
        stoppedAt = trace.lines.size();
    } else {
        for (int i = 0; i < 400 && stoppedAt < 0; ++i)
            clock.advance(DemoShow::kTick);
    }
    QVERIFY(stoppedAt > 0);

    if (restart) {
        // Only the new run goes on: its first six lines, then its own ticks.
        clock.advance(0.05);
        QCOMPARE(trace.lines.size(), stoppedAt + 6);
        QVERIFY(trace.lines[stoppedAt].contains(u"/eos/out/show/name"));
        clock.advance(0.1);
        QCOMPARE(trace.lines.size(), stoppedAt + 7);
        QVERIFY(trace.lines.last().endsWith(u"\"1/1 Preset 3.0 3%\""));
        QVERIFY(demo.isRunning());
        return;
    }
    clock.advance(120.0);
    QCOMPARE(trace.lines.size(), stoppedAt);
    QVERIFY(!demo.isRunning());
    QCOMPARE(demo.showTime(), std::nullopt);
    QCOMPARE(running.count(), 2);
    QCOMPARE(showTime.count(), 2);
}

void DemoShowTest::runsTheShowTimeWhileRunning()
{
    ManualClock clock;
    ShowData show(clock);
    DemoShow demo(deliverTo(show), clock);
    QCOMPARE(demo.showTime(), std::nullopt);
    clock.advance(7.0);
    const WallTime startedAt = clock.wallNow();
    demo.start();
    QCOMPARE(demo.showTime(), (ShowTime{3600, 0, startedAt, false, 25}));
    clock.advance(1.5);
    const ShowTime time = *demo.showTime();
    QCOMPARE(ShowTime::format(time.secondsAt(clock.wallNow()), time.framesPerSecond),
             "01:00:01:12");
    demo.stop();
    QCOMPARE(demo.showTime(), std::nullopt);
}

QTEST_GUILESS_MAIN(DemoShowTest)
#include "DemoShowTest.moc"
