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

namespace {

const ShowInput::Sender console{"10.0.0.5", QHostAddress("10.0.0.5"), 0};

struct Feed {
    ManualClock clock;
    ShowData show{clock};
    ShowInput input{show, clock};
    OverlayFeed feed{show, clock};

    void activeCue(const char* text)
    {
        input.receive(OSCMessage{"/eos/out/active/cue/text", {std::string(text)}}, console);
    }
};

} // namespace

class OverlayFeedTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void followsTheShowTheDemoAndTheSettings();
    void camerasThatGoAwayAreLetGo();
};

void OverlayFeedTest::followsTheShowTheDemoAndTheSettings()
{
    Feed f;
    DemoShow demo(f.input.demoDelivery(), f.clock);
    f.feed.setDemoShow(&demo);
    QCOMPARE(f.feed.content().cue, std::nullopt);
    QCOMPARE(f.feed.content().showTime, std::nullopt);

    demo.start();
    QCOMPARE(f.feed.content().showTime, demo.showTime());
    f.clock.advance(0.5);
    QVERIFY(f.show.activeCue().has_value());
    QCOMPARE(f.show.eosSender(), std::optional<QString>(DemoShow::kSender));
    QCOMPARE(f.feed.content().cue->number, f.show.activeCue()->token());
    QCOMPARE(f.feed.sources().gatheredAt, f.clock.wallNow());

    // A console's cue through the same door replaces the demo's at once.
    f.activeCue("2/7 Storm 3 10%");
    QCOMPARE(f.feed.content().cue->number, QStringLiteral("2/7"));
    QCOMPARE(f.feed.content().cue->label, QStringLiteral("Storm"));

    demo.stop();
    QCOMPARE(f.feed.content().showTime, std::nullopt);
    f.feed.setDemoShow(nullptr);
    demo.start(); // no longer followed
    QCOMPARE(f.feed.content().showTime, std::nullopt);

    // The look, the switch and the recording's start reach the content at once.
    OverlayLook look;
    look.showsCue = false;
    look.scale = 1.5;
    f.feed.setLook(look);
    f.feed.setEnabled(false);
    f.feed.setRecordingStart(f.clock.wallNow());
    QCOMPARE(f.feed.content().cue, std::nullopt);
    QCOMPARE(f.feed.content().scale, 1.5);
    QCOMPARE(f.feed.content().isEnabled, false);
    QCOMPARE(f.feed.content().recordingStart, std::optional<WallTime>(f.clock.wallNow()));
}

void OverlayFeedTest::camerasThatGoAwayAreLetGo()
{
    Feed f;
    auto stage = std::make_unique<CaptureEngine>(f.clock);
    CaptureEngine wide(f.clock);
    f.feed.addCamera(*stage, QStringLiteral("Stage Cam"));
    f.feed.addCamera(wide, QStringLiteral("Wide"));
    f.feed.addCamera(wide, QStringLiteral("Wide Shot")); // a new label, not a second camera
    stage.reset();
    f.activeCue("1/9 Nine 1 0%");
    QCOMPARE(f.feed.content().cue->number, QStringLiteral("1/9"));
    f.feed.removeCamera(wide);
    f.feed.refresh();
}

QTEST_GUILESS_MAIN(OverlayFeedTest)
#include "OverlayFeedTest.moc"
