#include "show/DemoShow.h"

#include "base/ManualClock.h"
#include "show/ShowData.h"
#include "support/Golden.h"

#include <QHash>
#include <QSignalSpy>
#include <QTest>

#include <cmath>

using namespace orvane;

namespace {

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

class DemoShowTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void playsOneWholeLoopOfTheScript();
    void stopsAndStartsOverFromPreset_data();
    void stopsAndStartsOverFromPreset();
};

// The golden file holds every message but the fade reports in between, which follow from their
// fire: one per tick from the fire on, the whole percent of (elapsed / fade), tracks in the
// order they fired within a tick, up to the 100 % kept in the file.
void DemoShowTest::playsOneWholeLoopOfTheScript()
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

QTEST_GUILESS_MAIN(DemoShowTest)
#include "DemoShowTest.moc"
