#include "capture/CameraFeed.h"

#include "MovieProbe.h"
#include "capture/CaptureEngine.h"
#include "capture/TestPatternSource.h"
#include "capture/ToneSource.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace orvane;

Q_DECLARE_METATYPE(orvane::Feed)
Q_DECLARE_METATYPE(orvane::FeedState)
Q_DECLARE_METATYPE(orvane::MovieStart)
Q_DECLARE_METATYPE(orvane::FinishedMovie)

namespace {

Feed feed(std::optional<QString> device, std::optional<QString> name, bool available)
{
    return {QUuid::createUuid(), std::move(device), std::move(name), available, false};
}

const Feed testPattern = feed(TestPatternSource::kID, QStringLiteral("Test Pattern"), true);

// A feed of the small test pattern, applied.
struct Camera : CameraFeed {
    explicit Camera(const Feed& applied, bool authorized = true)
        : CameraFeed(applied.id)
    {
        engine().setTestPatternFormat({160, 90, 30});
        apply(applied, authorized);
    }
    // Whether the camera is live and delivering frames within ten seconds.
    bool live()
    {
        return QTest::qWaitFor(
            [this] {
                return state() == FeedState::of(FeedState::Kind::live) &&
                       engine().stats().framesPerSecond > 0;
            },
            10000);
    }
};

} // namespace

class CameraFeedTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void stateFollowsTheFeed_data();
    void stateFollowsTheFeed();
    void applyingTheSameFeedTwiceConfiguresOnce();
    void theSameCameraComesBackFromEveryState_data();
    void theSameCameraComesBackFromEveryState();
    void aCameraThatFailedIsTriedAgain();
    void recordsWithItsTimeZeroAndChapters_data();
    void recordsWithItsTimeZeroAndChapters();
    void stoppingBeforeTheFirstFrameLeavesNoFile();
};

void CameraFeedTest::stateFollowsTheFeed_data()
{
    QTest::addColumn<Feed>("applied");
    QTest::addColumn<bool>("authorized");
    QTest::addColumn<FeedState>("state");
    QTest::newRow("no access") << testPattern << false << FeedState::of(FeedState::Kind::noAccess);
    QTest::newRow("no camera chosen")
        << feed({}, {}, false) << true << FeedState::of(FeedState::Kind::unassigned);
    QTest::newRow("unplugged, no name")
        << feed(QStringLiteral("/dev/v4l/by-id/usb-cam"), {}, false) << true
        << FeedState::disconnected(QStringLiteral("The camera"));
    QTest::newRow("cannot be opened")
        << feed(QStringLiteral("/dev/null"), QStringLiteral("Null"), true) << true
        << FeedState::failed(
               QStringLiteral("The camera couldn't be opened. Another app may be using it."));
    QTest::newRow("test pattern") << testPattern << true << FeedState::of(FeedState::Kind::live);
}

void CameraFeedTest::stateFollowsTheFeed()
{
    QFETCH(Feed, applied);
    QFETCH(bool, authorized);
    QFETCH(FeedState, state);
    Camera camera(applied, authorized);
    QTRY_COMPARE_WITH_TIMEOUT(camera.state(), state, 10000);
}

void CameraFeedTest::applyingTheSameFeedTwiceConfiguresOnce()
{
    Camera camera(testPattern);
    QSignalSpy opened(&camera.engine(), &CaptureEngine::framesStarted);
    QVERIFY(camera.live());
    QCOMPARE(camera.videoSize(), QSize(160, 90));
    camera.apply(testPattern, true);
    Feed mirrored = testPattern;
    mirrored.isMirrored = true;
    camera.apply(mirrored, true);
    QVERIFY(camera.engine().isMirrored());
    QTest::qWait(300); // ten frames: a reopened camera would have started again
    QCOMPARE(opened.count(), 1);
}

void CameraFeedTest::theSameCameraComesBackFromEveryState_data()
{
    QTest::addColumn<Feed>("away");
    QTest::addColumn<bool>("authorized");
    QTest::addColumn<FeedState>("state");
    Feed unassigned = testPattern;
    unassigned.deviceID.reset();
    Feed unplugged = testPattern;
    unplugged.isAvailable = false;
    QTest::newRow("access withdrawn")
        << testPattern << false << FeedState::of(FeedState::Kind::noAccess);
    QTest::newRow("camera unassigned")
        << unassigned << true << FeedState::of(FeedState::Kind::unassigned);
    QTest::newRow("camera unplugged")
        << unplugged << true << FeedState::disconnected(QStringLiteral("Test Pattern"));
}

void CameraFeedTest::theSameCameraComesBackFromEveryState()
{
    QFETCH(Feed, away);
    QFETCH(bool, authorized);
    QFETCH(FeedState, state);
    Camera camera(testPattern);
    QVERIFY(camera.live());
    camera.apply(away, authorized);
    QCOMPARE(camera.state(), state);
    // The camera is closed: nothing more is captured or recorded from it.
    QTRY_COMPARE_WITH_TIMEOUT(camera.engine().stats().framesPerSecond, 0.0, 10000);
    camera.apply(testPattern, true);
    QVERIFY(camera.live());
}

void CameraFeedTest::aCameraThatFailedIsTriedAgain()
{
    const Feed applied = feed(QStringLiteral("/dev/null"), QStringLiteral("Null"), true);
    Camera camera(applied);
    QTRY_COMPARE_WITH_TIMEOUT(camera.state().kind, FeedState::Kind::failed, 10000);
    // Nothing holds the failed device as configured: the next apply opens it again.
    QCOMPARE(camera.configuredDevice(), std::nullopt);
    camera.apply(applied, true);
    QCOMPARE(camera.configuredDevice(), std::optional<std::optional<QString>>(applied.deviceID));
}

void CameraFeedTest::recordsWithItsTimeZeroAndChapters_data()
{
    QTest::addColumn<bool>("main");
    QTest::newRow("an extra camera records no sound") << false;
    QTest::newRow("the main camera records its microphone") << true;
}

void CameraFeedTest::recordsWithItsTimeZeroAndChapters()
{
    QFETCH(bool, main);
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Camera.mov"));
    CameraFeed camera(testPattern.id);
    camera.engine().setTestPatternFormat({160, 90, 30});
    if (main) {
        std::optional<std::optional<CaptureError>> configured;
        camera.engine().configure(TestPatternSource::kID, ToneSource::kID,
                                  [&](std::optional<CaptureError> error) { configured = error; });
        QTRY_VERIFY_WITH_TIMEOUT(configured, 10000);
        QCOMPARE(*configured, std::nullopt);
    } else {
        camera.apply(testPattern, true);
    }
    QTRY_VERIFY_WITH_TIMEOUT(camera.engine().stats().framesPerSecond > 0, 10000);
    QSignalSpy started(&camera, &CameraFeed::recordingStarted);
    QSignalSpy finished(&camera.engine(), &CaptureEngine::movieFinished);
    const Instant asked = Clock::system().now();
    if (main)
        camera.engine().startRecording(path, MovieCodec::h264, true);
    else
        camera.startRecording(path, MovieCodec::h264);
    QVERIFY(started.wait(10000));
    const Instant told = Clock::system().now();
    // The movie's time zero: its first frame, captured after the start was asked for.
    const auto start = camera.recordingStart();
    QVERIFY(start);
    QVERIFY(start->capturedAt >= addSeconds(asked, -0.1) && start->capturedAt <= told);
    QCOMPARE(started.takeFirst().at(0).value<MovieStart>(), *start);
    QTest::qWait(1500);
    if (main) {
        // The tone's level, measured on the capture thread: a sine at half scale.
        const auto levels = camera.engine().stats().audioLevels;
        QCOMPARE(levels.size(), std::size_t(2));
        QVERIFY2(std::abs(levels[0] + 9.03f) < 0.2f, qPrintable(QString::number(levels[0])));
    }
    std::optional<Recorder::Outcome> outcome;
    camera.stopRecording({{0.5, QStringLiteral("Q 1")}}, [&](Recorder::Outcome o) { outcome = o; });
    QVERIFY(!camera.recordingStart());
    QTRY_VERIFY_WITH_TIMEOUT(outcome, 20000);
    QCOMPARE(*outcome, (Recorder::Outcome{path, std::nullopt, start}));
    QVERIFY(finished.count() == 1 || finished.wait(20000));
    QCOMPARE(finished.first().at(0).toString(), path);
    QCOMPARE(finished.first().at(1).value<FinishedMovie>().result, FinishedMovie::Result::finished);
    const auto movie = probeMovie(path);
    QVERIFY(movie);
    QCOMPARE(movie->count(QStringLiteral("video")), 1);
    QCOMPARE(movie->count(QStringLiteral("audio")), main ? 1 : 0);
    QCOMPARE(int(movie->chapters.size()), 1);
    QCOMPARE(movie->chapters.front().title, QStringLiteral("Q 1"));
    if (main) {
        const ProbedStream* audio = movie->stream(QStringLiteral("audio"));
        const ProbedStream* video = movie->stream(QStringLiteral("video"));
        QVERIFY2(std::abs(audio->duration - video->duration) < 0.15,
                 qPrintable(QStringLiteral("%1 %2").arg(audio->duration).arg(video->duration)));
    }
}

void CameraFeedTest::stoppingBeforeTheFirstFrameLeavesNoFile()
{
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Orvane.mov"));
    CaptureEngine engine;
    engine.startRecording(path, MovieCodec::hevc, true);
    std::optional<Recorder::Outcome> outcome;
    engine.stopRecording([&](Recorder::Outcome o) { outcome = o; });
    QTRY_VERIFY_WITH_TIMEOUT(outcome, 10000);
    QCOMPARE(*outcome, Recorder::Outcome{});
    QVERIFY(!QFile::exists(path));
    // A camera that starts afterwards writes nothing either.
    engine.setTestPatternFormat({160, 90, 30});
    engine.configure(TestPatternSource::kID, std::nullopt);
    QTRY_COMPARE_WITH_TIMEOUT(engine.videoSize(), QSize(160, 90), 10000);
    QVERIFY(!QFile::exists(path));
}

QTEST_GUILESS_MAIN(CameraFeedTest)
#include "CameraFeedTest.moc"
