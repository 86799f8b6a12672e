#include "show/DemoShow.h"
#include "support/Golden.h"

#include "base/ManualClock.h"
#include "show/ShowData.h"

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
        if (onLine)
            onLine(line);
    }

    QStringList lines;
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
    void playsOneWholeLoopOfTheScript();
    void stopsAndStartsOverFromPreset_data();
    void stopsAndStartsOverFromPreset();
};

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

    // The show data took it all in under the sender "Demo".
    QCOMPARE(show.showName(), std::optional<QString>("Demo Musical"));
    QCOMPARE(show.eosSender(), std::optional<QString>("Demo"));
    QCOMPARE(show.previousCue()->token(), "1/99");
    QCOMPARE(show.fields().size(), 2);
    QCOMPARE(show.fields()[1].value, QString::fromUtf8("Q 1 \u00b7 House Music"));
}

void DemoShowTest::stopsAndStartsOverFromPreset_data()
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

void DemoShowTest::stopsAndStartsOverFromPreset()
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
    const auto stopOrRestart = [&] {
        stoppedAt = trace.lines.size();
        if (restart)
            demo.start();
        else
            demo.stop();
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
    } else {
        for (int i = 0; i < 400 && stoppedAt < 0; ++i)
            clock.advance(DemoShow::kTick);
    }
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
    const auto withoutMoments = [](const QStringList& lines) {
        QStringList texts;
        for (const QString& line : lines)
            texts.append(line.mid(10));
        return texts;
    };
    QCOMPARE(withoutMoments(trace.lines.mid(stoppedAt)), withoutMoments(trace.lines.mid(0, 7)));
    QVERIFY(demo.isRunning());
}

QTEST_GUILESS_MAIN(DemoShowTest)
#include "DemoShowTest.moc"
