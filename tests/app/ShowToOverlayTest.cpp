// From the show input to the overlay content: packets, bundles and junk decoded once at the one
// door into the show data; every change of the show, the demo's timecode or a settings value
// becoming new content at once, with cameras that go away let go; and what the overlay shows
// for what the settings, the show data, QLab and the demo say. (A real console's cues over the
// Eos link: the end-to-end test and the soak; commands over UDP: AppModelTest.)
#include "app/OverlayAssembly.h"
#include "app/OverlayFeed.h"
#include "app/ShowInput.h"
#include "base/ManualClock.h"
#include "capture/CaptureEngine.h"
#include "show/DemoShow.h"
#include "show/ShowData.h"

#include <QTest>
#include <QtEndian>

Q_DECLARE_METATYPE(orvane::OverlaySources)
Q_DECLARE_METATYPE(orvane::OverlayContent)

using namespace orvane;

namespace {

QByteArray bundleOf(const QList<QByteArray>& messages)
{
    QByteArray bundle("#bundle\0", 8);
    bundle.append(QByteArray("\0\0\0\0\0\0\0\1", 8));
    for (const QByteArray& element : messages) {
        char size[4];
        qToBigEndian<qint32>(qint32(element.size()), size);
        bundle.append(size, 4);
        bundle.append(element);
    }
    return bundle;
}

QByteArray textPacket(std::string address, const char* text)
{
    return encodeOSC(OSCMessage{std::move(address), {std::string(text)}});
}

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

const WallTime t0 = WallTime(std::chrono::seconds(1'795'464'907));

EosCue cue(const char* list, const char* number, const char* label, std::optional<int> percent)
{
    return EosCue{list, number, std::nullopt, std::nullopt, label, "", percent};
}

FadeClock fade(double seconds)
{
    return FadeClock{seconds, t0, 0, t0, false};
}

EosCuePart part(const char* number, const char* label, int percent, std::optional<FadeClock> clock)
{
    return EosCuePart{number, label, "", percent, t0, true, clock};
}

QLabCue qlabCue(const char* id, const char* number, const char* name, std::optional<double> elapsed,
                std::optional<double> duration, std::optional<WallTime> sampledAt,
                std::optional<WallTime> startedAt, bool paused = false)
{
    return QLabCue{id,        number,    name, "Audio", paused, elapsed, duration,
                   sampledAt, startedAt, {},   {},      {},     {},      {}};
}

OverlayPart row(const char* id, const char* tag, const char* label, double progress,
                std::optional<FadeClock> clock, std::optional<RunningTime> running, bool isRunning)
{
    return OverlayPart{id, tag, label, progress, clock, running, isRunning};
}

// A show in full swing: settings at their defaults, a cue with two parts, a pending cue,
// a field and a connected QLab with a timecode cue and one running cue.
OverlaySources busySources()
{
    OverlaySources sources;
    sources.look.showsShowName = true;
    sources.look.watermarkText = QStringLiteral("Rehearsal");
    sources.gatheredAt = t0;
    sources.showName = QStringLiteral("Hamlet");
    sources.activeCue = cue("1", "14", "Ghost", 40);
    sources.pendingCue = cue("1", "15", "Battlements", std::nullopt);
    sources.isHearingEos = true;
    sources.activeParts = {part("1", "Intensity", 100, fade(3)), part("2", "Colour", 40, fade(8))};
    sources.runningPart = QStringLiteral("2");
    sources.fields = {ShowField{"/tavrin/field/Scene", "Scene", "1.4", t0}};
    sources.isQLabConnected = true;
    sources.qlabShowTime = ShowTime{3600, 10, t0, false, 25};
    sources.qlabRunningCues = {qlabCue("A1", "12", "Wind", 4.0, 30.0, t0, std::nullopt)};
    return sources;
}

OverlayContent busyContent()
{
    OverlayContent content;
    content.watermarkText = QStringLiteral("Rehearsal");
    content.showTime = ShowTime{3600, 10, t0, false, 25};
    content.showName = QStringLiteral("Hamlet");
    content.cue = OverlayCue{"1/14", "Ghost"};
    content.nextCue = OverlayCue{"1/15", "Battlements"};
    content.parts = {row("P1", "P1", "Intensity", 1.0, fade(3), std::nullopt, false),
                     row("P2", "P2", "Colour", 0.4, fade(8), std::nullopt, true)};
    content.fields = {OverlayItem{"Scene", "1.4", ""}};
    content.qlabCues = {
        row("A1", "12", "Wind", 0, std::nullopt, RunningTime{4, t0, 30.0, false}, false)};
    return content;
}

} // namespace

class ShowToOverlayTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void decodesEachPacketOnce_data();
    void decodesEachPacketOnce();
    void followsTheShowTheDemoAndTheSettings();
    void camerasThatGoAwayAreLetGo();
    void assembles_data();
    void assembles();
};

void ShowToOverlayTest::decodesEachPacketOnce_data()
{
    QTest::addColumn<QByteArrayList>("packets");
    QTest::addColumn<QString>("showName");
    QTest::addColumn<QString>("lastReceived");
    QTest::addColumn<int>("messages");

    const QByteArray name = textPacket("/eos/out/show/name", "Bundled");
    const QByteArray cue = textPacket("/eos/out/active/cue/text", "1/3 Three 2 20%");
    QTest::newRow("a bundle, in order")
        << QByteArrayList{bundleOf({name, cue})} << "Bundled"
        << "/eos/out/active/cue/text 1/3 Three 2 20% from 10.0.0.5" << 2;
    QTest::newRow("junk and a cut message are dropped")
        << QByteArrayList{name, "not osc at all", cue.left(cue.size() - 3)} << "Bundled"
        << "/eos/out/show/name Bundled from 10.0.0.5" << 1;
}

void ShowToOverlayTest::decodesEachPacketOnce()
{
    QFETCH(QByteArrayList, packets);
    QFETCH(QString, showName);
    QFETCH(QString, lastReceived);
    QFETCH(int, messages);

    Feed f;
    int handled = 0;
    connect(&f.show, &ShowData::lastReceivedChanged, this, [&] { ++handled; });
    for (const QByteArray& packet : packets)
        f.input.receive(packet, console);
    QCOMPARE(f.show.showName(), std::optional<QString>(showName));
    QCOMPARE(f.show.lastReceived(), std::optional<QString>(lastReceived));
    QCOMPARE(f.show.eosSender(), std::optional<QString>("10.0.0.5"));
    QCOMPARE(handled, messages);
}

void ShowToOverlayTest::followsTheShowTheDemoAndTheSettings()
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
    look.scale = 1.5;
    f.feed.setLook(look);
    f.feed.setEnabled(false);
    f.feed.setRecordingStart(f.clock.wallNow());
    QCOMPARE(f.feed.content().scale, 1.5);
    QCOMPARE(f.feed.content().isEnabled, false);
    // A scale from a hand-edited file is drawn within the overlay's sizes.
    look.scale = 1000.0;
    f.feed.setLook(look);
    QCOMPARE(f.feed.content().scale, OverlayLook::kMaximumScale);
    QCOMPARE(f.feed.content().recordingStart, std::optional<WallTime>(f.clock.wallNow()));
}

void ShowToOverlayTest::camerasThatGoAwayAreLetGo()
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

void ShowToOverlayTest::assembles_data()
{
    QTest::addColumn<OverlaySources>("sources");
    QTest::addColumn<OverlayContent>("expected");

    QTest::newRow("nothing known") << OverlaySources() << OverlayContent();
    QTest::newRow("busy show") << busySources() << busyContent();

    {
        OverlaySources sources = busySources();
        sources.look.opacity = 0.4;
        sources.look.showsClock = false;
        sources.look.showsDate = true;
        sources.look.showsTimecode = false;
        sources.look.watermarkOpacity = 0.2;
        sources.look.layout.setPlacement(OverlayWidget::qlab, {0.5, 0.1, 0.5, 0});
        sources.cameraLabel = QStringLiteral("Wide");
        sources.watermarkImage = QImage(4, 2, QImage::Format_ARGB32);
        OverlayContent expected = busyContent();
        expected.opacity = 0.4;
        expected.showsClock = false;
        expected.showsDate = true;
        expected.showsTimecode = false; // the show time stays; the renderer applies it
        expected.watermarkOpacity = 0.2;
        expected.layout = sources.look.layout;
        expected.cameraLabel = QStringLiteral("Wide");
        expected.watermarkImage = sources.watermarkImage;
        // (The scale, the switch and the recording's start: the feed test above.)
        QTest::newRow("settings and model values copied") << sources << expected;
    }
    {
        OverlaySources sources = busySources();
        sources.look.showsShowName = false;
        sources.look.showsCue = false;
        sources.look.showsNextCue = false;
        sources.look.showsFields = false;
        sources.look.showsQLabCues = false;
        OverlayContent expected = busyContent();
        expected.showName.reset();
        expected.cue.reset();
        expected.parts.clear();
        expected.nextCue.reset();
        expected.fields.clear();
        expected.qlabCues.clear();
        QTest::newRow("every show switch off") << sources << expected;
    }
    {
        OverlaySources sources;
        sources.isHearingEos = true;
        sources.pendingCue = cue("", "5", "", std::nullopt);
        sources.look.showsShowName = true;
        sources.showName = QString(); // empty: absent
        OverlayContent expected;
        expected.cue = OverlayCue{QStringLiteral("\u2014"), QString()};
        expected.nextCue = OverlayCue{"5", ""};
        QTest::newRow("console heard, no cue nor show name yet") << sources << expected;
    }
    {
        OverlaySources sources;
        sources.activeCue = cue("2", "7", "Blackout", std::nullopt);
        sources.activeCueClock = fade(5);
        OverlayContent expected;
        expected.cue = OverlayCue{"2/7", "Blackout"};
        expected.parts = {row("cue", "", "Blackout", 1.0, fade(5), std::nullopt, true)};
        QTest::newRow("cue without parts and no percentage") << sources << expected;
    }
    {
        OverlaySources sources;
        sources.activeCue = cue("2", "7", "Blackout", 35);
        OverlayContent expected;
        expected.cue = OverlayCue{"2/7", "Blackout"};
        expected.parts = {row("cue", "", "Blackout", 0.35, std::nullopt, std::nullopt, true)};
        QTest::newRow("cue without parts at 35 %") << sources << expected;
    }
    {
        OverlaySources sources = busySources();
        sources.isQLabConnected = false;
        OverlayContent expected = busyContent();
        expected.qlabCues.clear();
        expected.showTime.reset();
        QTest::newRow("QLab not connected: no cues, no timecode") << sources << expected;
    }
    {
        OverlaySources sources = busySources();
        sources.demoShowTime = ShowTime{0, 42, t0, true, 30};
        OverlayContent expected = busyContent();
        expected.showTime = ShowTime{0, 42, t0, true, 30};
        QTest::newRow("demo show time wins over QLab") << sources << expected;
    }
    {
        OverlaySources sources = busySources();
        const WallTime started = addSeconds(t0, -3);
        sources.qlabRunningCues = {
            qlabCue("B", "", "Rain", std::nullopt, std::nullopt, std::nullopt, started),
            qlabCue("C", "3", "Video", 2.0, 60.0, t0, started, true),
            qlabCue("D", "4", "Silent", std::nullopt, 10.0, std::nullopt, std::nullopt),
        };
        OverlayContent expected = busyContent();
        expected.qlabCues = {
            row("B", "", "Rain", 0, std::nullopt, RunningTime{0, started, std::nullopt, false},
                false),
            row("C", "3", "Video", 0, std::nullopt, RunningTime{2, t0, 60.0, true}, false),
            row("D", "4", "Silent", 0, std::nullopt, RunningTime{0, t0, 10.0, false}, false),
        };
        QTest::newRow("QLab cue times: start time, paused, gathered") << sources << expected;
    }
}

void ShowToOverlayTest::assembles()
{
    QFETCH(OverlaySources, sources);
    QFETCH(OverlayContent, expected);
    const OverlayContent content = assembleOverlayContent(sources);
    QCOMPARE(content.cue, expected.cue); // the one field that prints; then all of them
    QVERIFY(content == expected);
}

QTEST_GUILESS_MAIN(ShowToOverlayTest)
#include "ShowToOverlayTest.moc"
