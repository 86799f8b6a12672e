#include "capture/CameraFeed.h"

#include "MovieProbe.h"
#include "capture/CaptureEngine.h"
#include "capture/Frame.h"
#include "capture/TestPatternSource.h"
#include "capture/ToneSource.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace orvane;

using Configured = std::optional<std::optional<QString>>;
Q_DECLARE_METATYPE(orvane::Feed)
Q_DECLARE_METATYPE(orvane::FeedState)
Q_DECLARE_METATYPE(Configured)
Q_DECLARE_METATYPE(orvane::MovieStart)
Q_DECLARE_METATYPE(orvane::FinishedMovie)

namespace {

Feed feed(std::optional<QString> device, std::optional<QString> name, bool available)
{
    return {QUuid::createUuid(), std::move(device), std::move(name), available, false};
}

const Feed testPattern = feed(TestPatternSource::kID, QStringLiteral("Test Pattern"), true);
const FeedState live = FeedState::of(FeedState::Kind::live);

// An extra camera showing the small test pattern.
struct Camera : CameraFeed {
    Camera()
        : CameraFeed(testPattern.id)
    {
        engine().setTestPatternFormat({160, 90, 30});
        apply(testPattern, true);
    }
    // Whether the camera is live and delivering frames within ten seconds.
    bool isLive()
    {
        return QTest::qWaitFor(
            [this] { return state() == live && engine().stats().framesPerSecond > 0; }, 10000);
    }
};

} // namespace

class CameraFeedTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    // From a live camera to each state: what the feed shows, whether the camera is closed
    // (and comes back), and which device the feed holds as opened (a failed or unplugged one
    // holds none, so the next apply opens it again).
    void stateFollowsTheFeed_data()
    {
        QTest::addColumn<Feed>("applied");
        QTest::addColumn<bool>("authorized");
        QTest::addColumn<FeedState>("state");
        QTest::addColumn<Configured>("configured");
        QTest::addColumn<QSize>("size"); // of the frames, when live
        const Configured closed = std::optional<QString>();
        Feed unplugged = testPattern, mirrored = testPattern;
        unplugged.isAvailable = false;
        mirrored.isMirrored = true;
        const auto unopened =
            FeedState::failed("The camera couldn't be opened. Another app may be using it.");
        const QString sized = TestPatternSource::kID + "@64x48";
        QTest::newRow("no access") << testPattern << false
                                   << FeedState::of(FeedState::Kind::noAccess) << closed << QSize();
        QTest::newRow("no camera chosen")
            << feed({}, {}, false) << true << FeedState::of(FeedState::Kind::unassigned) << closed
            << QSize();
        QTest::newRow("unplugged") << unplugged << true << FeedState::disconnected("Test Pattern")
                                   << Configured() << QSize();
        QTest::newRow("unplugged, no name")
            << feed("/dev/v4l/by-id/usb-cam", {}, false) << true
            << FeedState::disconnected("The camera") << Configured() << QSize();
        QTest::newRow("cannot be opened")
            << feed("/dev/null", "Null", true) << true << unopened << Configured() << QSize();
        QTest::newRow("the same camera, mirrored: not opened again")
            << mirrored << true << live << Configured(testPattern.deviceID) << QSize(160, 90);
        QTest::newRow("the test pattern at a size of its own: opened anew")
            << feed(sized, {}, true) << true << live << Configured(sized) << QSize(64, 48);
        QTest::newRow("the test pattern at an odd size: no such camera")
            << feed(TestPatternSource::kID + "@63x48", {}, true) << true << unopened << Configured()
            << QSize();
        QTest::newRow("the test pattern beyond 8K: no such camera")
            << feed(TestPatternSource::kID + "@7682x4320", {}, true) << true << unopened
            << Configured() << QSize();
    }
    void stateFollowsTheFeed()
    {
        QFETCH(Feed, applied);
        QFETCH(bool, authorized);
        QFETCH(FeedState, state);
        QFETCH(Configured, configured);
        QFETCH(QSize, size);
        Camera camera;
        QSignalSpy opened(&camera.engine(), &CaptureEngine::framesStarted);
        QVERIFY(camera.isLive());
        QCOMPARE(camera.videoSize(), QSize(160, 90));
        camera.apply(applied, authorized);
        QTRY_COMPARE_WITH_TIMEOUT(camera.state(), state, 10000);
        QCOMPARE(camera.configuredDevice(), configured);
        QCOMPARE(camera.engine().isMirrored(), applied.isMirrored);
        if (state == live) {
            QTRY_COMPARE_WITH_TIMEOUT(camera.videoSize(), size, 10000);
            // A few frames later: a reopened camera would have started again.
            const auto number = [&] { return camera.engine().latestFrame()->number; };
            const auto appliedAt = number();
            QTRY_VERIFY(number() >= appliedAt + 3);
            QCOMPARE(opened.count(), size == QSize(160, 90) ? 1 : 2);
            return;
        }
        // The camera is closed: nothing more is captured or recorded from it.
        QTRY_COMPARE_WITH_TIMEOUT(camera.engine().stats().framesPerSecond, 0.0, 10000);
        camera.apply(testPattern, true);
        QVERIFY(camera.isLive());
    }

    void recordsWithItsTimeZeroAndChapters_data()
    {
        QTest::addColumn<bool>("main");
        QTest::newRow("an extra camera records no sound") << false;
        QTest::newRow("the main camera records its microphone") << true;
    }
    void recordsWithItsTimeZeroAndChapters()
    {
        QFETCH(bool, main);
        QTemporaryDir folder;
        const QString path = folder.filePath("Camera.mov");
        Camera camera;
        if (main)
            camera.engine().configure(TestPatternSource::kID, ToneSource::kID);
        QVERIFY(camera.isLive());
        QTRY_VERIFY(!main || !camera.engine().stats().audioLevels.empty());
        QSignalSpy started(&camera, &CameraFeed::recordingStarted);
        QSignalSpy finished(&camera.engine(), &CaptureEngine::movieFinished);
        const Instant asked = Clock::system().now();
        if (main)
            camera.engine().startRecording(path, MovieCodec::h264, true);
        else
            camera.startRecording(path, MovieCodec::h264);
        QVERIFY(started.wait(10000));
        // The movie's time zero: its first frame, captured after the start was asked for.
        const auto start = camera.recordingStart();
        QVERIFY(start && start->capturedAt >= addSeconds(asked, -0.1) &&
                start->capturedAt <= Clock::system().now());
        QCOMPARE(started.takeFirst().at(0).value<MovieStart>(), *start);
        QTRY_VERIFY_WITH_TIMEOUT(camera.engine().recordedFramesForTesting() >= 20, 10000);
        if (main) {
            // The tone's level, measured on the capture thread: a sine at half scale.
            const auto levels = camera.engine().stats().audioLevels;
            QCOMPARE(levels.size(), std::size_t(2));
            QVERIFY2(std::abs(levels[0] + 9.03f) < 0.2f, qPrintable(QString::number(levels[0])));
        }
        std::optional<Recorder::Outcome> outcome;
        camera.stopRecording({{0.2, "Q 1"}}, [&](Recorder::Outcome o) { outcome = o; });
        QVERIFY(!camera.recordingStart());
        QTRY_VERIFY_WITH_TIMEOUT(outcome, 20000);
        QCOMPARE(*outcome, (Recorder::Outcome{path, std::nullopt, start}));
        QVERIFY(finished.count() == 1 || finished.wait(20000));
        QCOMPARE(finished.first().at(0).toString(), path);
        QCOMPARE(finished.first().at(1).value<FinishedMovie>().result,
                 FinishedMovie::Result::finished);
        const auto movie = probeMovie(path);
        QVERIFY(movie && movie->count("video") == 1);
        QCOMPARE(movie->count("audio"), main ? 1 : 0);
        QCOMPARE(int(movie->chapters.size()), 1);
        QCOMPARE(movie->chapters.front().title, "Q 1");
        if (main) {
            const double audio = movie->stream("audio")->duration;
            const double video = movie->stream("video")->duration;
            QVERIFY2(std::abs(audio - video) < 0.15,
                     qPrintable(QString("%1 %2").arg(audio).arg(video)));
        }
    }

    void stoppingBeforeTheFirstFrameLeavesNoFile()
    {
        QTemporaryDir folder;
        const QString path = folder.filePath("Orvane.mov");
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
};

QTEST_GUILESS_MAIN(CameraFeedTest)
#include "CameraFeedTest.moc"
