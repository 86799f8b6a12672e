#include "capture/CameraFeed.h"

#include "capture/CaptureEngine.h"
#include "capture/Frame.h"
#include "capture/TestPatternSource.h"

#include <QSignalSpy>
#include <QTest>

using namespace orvane;

using Configured = std::optional<std::optional<QString>>;
Q_DECLARE_METATYPE(orvane::Feed)
Q_DECLARE_METATYPE(orvane::FeedState)
Q_DECLARE_METATYPE(Configured)

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
    // (and comes back), and which device the feed holds as opened.
    void stateFollowsTheFeed_data()
    {
        QTest::addColumn<Feed>("applied");
        QTest::addColumn<bool>("authorized");
        QTest::addColumn<FeedState>("state");
        Feed mirrored = testPattern;
        mirrored.isMirrored = true;
        const auto unopened =
            FeedState::failed("The camera couldn't be opened. Another app may be using it.");
        const QString pattern = TestPatternSource::kID;
        QTest::newRow("no access")
            << testPattern << false << FeedState::of(FeedState::Kind::noAccess);
        QTest::newRow("unplugged, no name") << feed("/dev/v4l/by-id/usb-cam", {}, false) << true
                                            << FeedState::disconnected("The camera");
        QTest::newRow("cannot be opened") << feed("/dev/null", "Null", true) << true << unopened;
        QTest::newRow("the same camera, mirrored: not opened again") << mirrored << true << live;
        QTest::newRow("the test pattern at a size of its own: opened anew")
            << feed(pattern + "@64x48", {}, true) << true << live;
        QTest::newRow("the test pattern at an odd size: no such camera")
            << feed(pattern + "@63x48", {}, true) << true << unopened;
        QTest::newRow("the test pattern beyond 8K: no such camera")
            << feed(pattern + "@7682x4320", {}, true) << true << unopened;
    }
    void stateFollowsTheFeed()
    {
        QFETCH(Feed, applied);
        QFETCH(bool, authorized);
        QFETCH(FeedState, state);
        // A camera closed for want of access is held as "opened with none"; a failed or
        // unplugged one as none at all, so the next apply opens it again.
        const Configured configured = state == live ? Configured(applied.deviceID)
                                      : authorized  ? Configured()
                                                    : Configured(std::optional<QString>());
        Camera camera;
        QSignalSpy opened(&camera.engine(), &CaptureEngine::framesStarted);
        QVERIFY(camera.isLive());
        QCOMPARE(camera.videoSize(), QSize(160, 90));
        camera.apply(applied, authorized);
        QTRY_COMPARE_WITH_TIMEOUT(camera.state(), state, 10000);
        QCOMPARE(camera.configuredDevice(), configured);
        QCOMPARE(camera.engine().isMirrored(), applied.isMirrored);
        if (state == live) {
            const QSize size =
                TestPatternSource::sizeIn(*applied.deviceID).value_or(QSize(160, 90));
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
};

QTEST_GUILESS_MAIN(CameraFeedTest)
#include "CameraFeedTest.moc"
