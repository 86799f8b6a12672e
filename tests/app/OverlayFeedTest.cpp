// The overlay feed: every change of the show, the demo's timecode or a settings value becomes
// new content at once, and cameras that go away are let go.
#include "app/OverlayFeed.h"
#include "app/ShowInput.h"
#include "base/ManualClock.h"
#include "capture/CaptureEngine.h"
#include "show/DemoShow.h"
#include "show/ShowData.h"

#include <QTest>

using namespace orvane;

class OverlayFeedTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void followsTheShowAndTheDemo();
    void followsTheSettingsValues_data();
    void followsTheSettingsValues();
    void camerasThatGoAwayAreLetGo();
};

void OverlayFeedTest::followsTheShowAndTheDemo()
{
    ManualClock clock;
    ShowData show(clock);
    ShowInput input(show, clock);
    OverlayFeed feed(show, clock);
    DemoShow demo(input.demoDelivery(), clock);
    feed.setDemoShow(&demo);
    QCOMPARE(feed.content().cue, std::nullopt);
    QCOMPARE(feed.content().showTime, std::nullopt);

    demo.start();
    QCOMPARE(feed.content().showTime, demo.showTime());
    clock.advance(0.5);
    QVERIFY(show.activeCue().has_value());
    QCOMPARE(feed.content().cue->number, show.activeCue()->token());
    QCOMPARE(feed.sources().gatheredAt, clock.wallNow());

    // A console's cue through the same door replaces the demo's at once.
    input.receive(OSCMessage{"/eos/out/active/cue/text", {std::string("2/7 Storm 3 10%")}},
                  ShowInput::Sender{"10.0.0.5", QHostAddress("10.0.0.5"), 0});
    QCOMPARE(feed.content().cue->number, QStringLiteral("2/7"));
    QCOMPARE(feed.content().cue->label, QStringLiteral("Storm"));

    demo.stop();
    QCOMPARE(feed.content().showTime, std::nullopt);
    feed.setDemoShow(nullptr);
    demo.start(); // no longer followed
    QCOMPARE(feed.content().showTime, std::nullopt);
}

void OverlayFeedTest::followsTheSettingsValues_data()
{
    QTest::addColumn<bool>("isEnabled");
    QTest::addColumn<bool>("showsCue");
    QTest::addColumn<bool>("showsNextCue");
    QTest::addColumn<double>("scale");

    QTest::newRow("as set") << true << true << true << 1.0;
    QTest::newRow("overlay off") << false << true << true << 1.0;
    QTest::newRow("no cue, larger") << true << false << true << 1.5;
    QTest::newRow("no next cue") << true << true << false << 0.8;
}

void OverlayFeedTest::followsTheSettingsValues()
{
    QFETCH(bool, isEnabled);
    QFETCH(bool, showsCue);
    QFETCH(bool, showsNextCue);
    QFETCH(double, scale);

    ManualClock clock;
    ShowData show(clock);
    ShowInput input(show, clock);
    OverlayFeed feed(show, clock);
    const ShowInput::Sender console{"10.0.0.5", QHostAddress("10.0.0.5"), 0};
    input.receive(OSCMessage{"/eos/out/active/cue/text", {std::string("1/4 Four 2 50%")}}, console);
    input.receive(OSCMessage{"/eos/out/pending/cue/text", {std::string("1/5 Five 3")}}, console);

    OverlayLook look;
    look.showsCue = showsCue;
    look.showsNextCue = showsNextCue;
    look.scale = scale;
    feed.setLook(look);
    feed.setEnabled(isEnabled);
    const WallTime start = clock.wallNow();
    feed.setRecordingStart(start);

    QCOMPARE(feed.content().isEnabled, isEnabled);
    QCOMPARE(feed.content().scale, scale);
    QCOMPARE(feed.content().cue.has_value(), showsCue);
    QCOMPARE(feed.content().nextCue.has_value(), showsNextCue);
    QCOMPARE(feed.content().recordingStart, std::optional<WallTime>(start));
}

void OverlayFeedTest::camerasThatGoAwayAreLetGo()
{
    ManualClock clock;
    ShowData show(clock);
    ShowInput input(show, clock);
    OverlayFeed feed(show, clock);
    auto stage = std::make_unique<CaptureEngine>(clock);
    CaptureEngine wide(clock);
    feed.addCamera(*stage, QStringLiteral("Stage Cam"));
    feed.addCamera(wide, QStringLiteral("Wide"));
    feed.addCamera(wide, QStringLiteral("Wide Shot")); // a new label, not a second camera
    stage.reset();
    input.receive(OSCMessage{"/eos/out/active/cue/text", {std::string("1/9 Nine 1 0%")}},
                  ShowInput::Sender{"10.0.0.5", QHostAddress("10.0.0.5"), 0});
    QCOMPARE(feed.content().cue->number, QStringLiteral("1/9"));
    feed.removeCamera(wide);
    feed.refresh();
}

QTEST_GUILESS_MAIN(OverlayFeedTest)
#include "OverlayFeedTest.moc"
