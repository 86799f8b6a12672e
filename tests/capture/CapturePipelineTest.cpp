// From a camera node to the frames the pipeline hands on: which nodes are cameras, the mode a
// camera is set to, the picture taken from the driver and decoded, what the pipeline does with
// every frame and every sound buffer, stepped on a manual clock, and the state of a camera feed.

#include "capture/CapturePipeline.h"

#include "base/ManualClock.h"
#include "capture/AudioSource.h"
#include "capture/CameraDecoder.h"
#include "capture/CameraFeed.h"
#include "capture/CameraMode.h"
#include "capture/CaptureDevices.h"
#include "capture/Frame.h"
#include "capture/FramePreview.h"
#include "capture/FrameSink.h"
#include "capture/NewestBuffer.h"
#include "capture/TestPatternSource.h"
#include "capture/ToneSource.h"
#include "overlay/YuvPlanes.h"

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cstring>
#include <deque>
#include <linux/capability.h>
#include <linux/videodev2.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

using namespace orvane;

using Stamps = std::vector<std::int64_t>;
using Configured = std::optional<std::optional<QString>>;
Q_DECLARE_METATYPE(orvane::Feed)
Q_DECLARE_METATYPE(orvane::FeedState)

namespace {

// "mjpeg 1920x1080@30, yuyv422 640x480@5": ways to deliver pictures, each at one rate. MJPEG
// is compressed, a raw format takes 2 bytes a pixel.
std::vector<CameraMode> modes(const QString& described)
{
    std::vector<CameraMode> modes;
    for (const QString& mode : described.split(", ", Qt::SkipEmptyParts)) {
        const QStringList field = mode.split(QRegularExpression("[ x@]"));
        const double fps = field[3].toDouble();
        modes.push_back(
            {field[0], field[0] == "mjpeg", field[1].toInt(), field[2].toInt(), 2, {{fps, fps}}});
    }
    return modes;
}

// Takes away root's right to open any file whatever its mode, while it lives.
class WithoutFileAccessOverride {
public:
    WithoutFileAccessOverride()
    {
        ::syscall(SYS_capget, &header_, saved_);
        __user_cap_data_struct reduced[2] = {saved_[0], saved_[1]};
        reduced[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        ::syscall(SYS_capset, &header_, reduced);
    }
    ~WithoutFileAccessOverride() { ::syscall(SYS_capset, &header_, saved_); }

private:
    __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved_[2]{};
};

// A camera whose pictures carry whatever presentation time the test gives them.
class StampedSource final : public VideoSource {
public:
    std::optional<Instant> nextPresentedAt;

    int width() const override { return 8; }
    int height() const override { return 4; }
    double frameDuration() const override { return 1.0 / 25; }
    Wait waitForFrame(Seconds) override { return Wait::frameReady; }
    std::optional<Instant> readFrame(Frame& frame) override
    {
        std::memset(frame.data[0], 0x40, frame.bytes);
        return nextPresentedAt;
    }
    void skipFrame() override {}
};

// Holds on to the newest `count` of every `every`th frame it is given, as a consumer at its
// busiest does (the recorder: its full queue and the one being encoded; the web viewer, slower
// than the camera: one being encoded and one waiting); by default to all, as a slow one would.
class KeepingSink final : public FrameSink {
public:
    explicit KeepingSink(std::size_t count = SIZE_MAX, int every = 1)
        : count_(count)
        , every_(every)
    {
    }
    std::deque<std::shared_ptr<const Frame>> frames;
    std::function<void()> duringCall;
    void takeFrame(std::shared_ptr<const Frame> frame, double) override
    {
        if (given_++ % every_ == 0)
            frames.push_back(std::move(frame));
        if (frames.size() > count_)
            frames.pop_front();
        if (duringCall)
            duringCall();
    }

private:
    std::size_t count_;
    int every_;
    int given_ = 0;
};

Feed feed(std::optional<QString> device, std::optional<QString> name, bool available)
{
    return {QUuid::createUuid(), std::move(device), std::move(name), available, false};
}

const Feed testPattern = feed(TestPatternSource::kID, QStringLiteral("Test Pattern"), true);
const FeedState live = FeedState::of(FeedState::Kind::live);

} // namespace

class CapturePipelineTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void onlyNodesThatCaptureVideoCount()
    {
        QVERIFY(
            CaptureDevices::capturesVideo(V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_STREAMING, 0));
        QVERIFY(!CaptureDevices::capturesVideo(V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING, 0));
        QVERIFY(!CaptureDevices::capturesVideo(V4L2_CAP_VIDEO_CAPTURE, 0)); // without streaming
        // A UVC camera has a second node for metadata; the driver reports the whole device's
        // capabilities, and the node's own in device_caps.
        const quint32 capture = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
        const quint32 uvc = capture | V4L2_CAP_META_CAPTURE | V4L2_CAP_DEVICE_CAPS;
        QVERIFY(!CaptureDevices::capturesVideo(uvc, V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING));
        QVERIFY(CaptureDevices::capturesVideo(uvc, capture));
    }

    // Nodes that are not cameras are left out; one this process may not open is listed, and
    // denies access to itself alone. Numbers no real node has, so sysfs knows nothing of them.
    void nodesThatAreNotCamerasAreLeftOutAndADeniedOneDeniesOnlyItself()
    {
        QTemporaryDir folder;
        QVERIFY(QFile::link("/dev/null", folder.filePath("video0")));
        const QString denied = folder.filePath("video97");
        QVERIFY(QFile(denied).open(QIODevice::WriteOnly));
        QVERIFY(QFile(folder.filePath("video98")).open(QIODevice::WriteOnly));
        QVERIFY(QFile::setPermissions(denied, {}));
        WithoutFileAccessOverride unprivileged;
        if (QFile probe(denied); probe.open(QIODevice::ReadOnly))
            QSKIP("this process may open any file (running with privileges it cannot drop)");
        CaptureDevices devices(folder.path());
        QCOMPARE(devices.cameras(),
                 (std::vector<CaptureSource>{{denied, "video97"}, TestPatternSource::source()}));
        QCOMPARE(devices.cameraAuthorization(denied), CaptureDevices::Authorization::denied);
        QCOMPARE(devices.cameraAuthorization(TestPatternSource::kID),
                 CaptureDevices::Authorization::authorized);
        // No camera of this computer can be opened: the user must be given access.
        QCOMPARE(devices.cameraAuthorization(), CaptureDevices::Authorization::denied);
        // Listing again finds the same: observers are not woken.
        QSignalSpy changed(&devices, &CaptureDevices::camerasChanged);
        devices.refresh();
        QCOMPARE(changed.count(), 0);
        QVERIFY(!CaptureDevices::openCamera("/dev/video-that-is-not-there", Clock::system()));
        QVERIFY(!CaptureDevices::openMicrophone("no-such-source", Clock::system()));
    }

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
        CameraFeed camera(testPattern.id);
        camera.engine().setTestPatternFormat({160, 90, 30});
        QSignalSpy opened(&camera.engine(), &CaptureEngine::framesStarted);
        camera.apply(testPattern, true);
        const auto isLive = [&] {
            return QTest::qWaitFor(
                [&] {
                    return camera.state() == live && camera.engine().stats().framesPerSecond > 0;
                },
                10000);
        };
        QVERIFY(isLive());
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
        QVERIFY(isLive());
    }

    void theFastestRangeWins()
    {
        QCOMPARE(CameraMode::fastest({{30, 30}, {1, 60}, {15, 15}}), FrameRateRange({1, 60}));
        QCOMPARE(CameraMode::fastest({{5, 30}, {30, 30}}), FrameRateRange({5, 30})); // the first
        QCOMPARE(CameraMode::fastest({}), std::nullopt);
    }

    void theLargestSizeThatKeepsTheRateIsChosen_data()
    {
        QTest::addColumn<QString>("offered");
        QTest::addColumn<QSize>("wanted"); // none when not valid
        QTest::addColumn<QString>("chosen");
        const auto row = [](const char* name, const char* offered, const char* chosen,
                            QSize wanted = {}) {
            QTest::newRow(name) << QString(offered) << wanted << QString(chosen);
        };
        row("plugged in at 640x480, offers 1080p30: 1080p30",
            "yuyv422 640x480@30, yuyv422 1280x720@10, yuyv422 1920x1080@5, mjpeg 640x480@30, "
            "mjpeg 1280x720@30, mjpeg 1920x1080@30",
            "mjpeg 1920x1080@30");
        row("a larger size only at 5 fps: the largest at 30",
            "yuyv422 640x480@5, yuyv422 320x240@30, yuyv422 1920x1080@5", "yuyv422 320x240@30");
        row("raw beats compressed at the same size where it fits",
            "mjpeg 320x240@30, yuyv422 320x240@30", "yuyv422 320x240@30");
        row("raw that does not fit at its rate: compressed", "yuyv422 640x480@30, mjpeg 640x480@30",
            "mjpeg 640x480@30");
        row("4K is not recorded: 1080p",
            "mjpeg 3840x2160@30, mjpeg 1920x1080@30, mjpeg 1280x720@30", "mjpeg 1920x1080@30");
        row("only 4K: 4K rather than nothing", "mjpeg 3840x2160@15", "mjpeg 3840x2160@15");
        row("60 fps keeps 30 too: the larger size at 30", "mjpeg 1280x720@60, mjpeg 1920x1080@30",
            "mjpeg 1920x1080@30");
        row("a camera that tops out at 15 fps: its largest at 15",
            "yuyv422 160x120@15, yuyv422 320x240@15", "yuyv422 320x240@15");
        row("the settings ask for 720p",
            "yuyv422 640x480@30, mjpeg 1280x720@30, mjpeg 1920x1080@30", "mjpeg 1280x720@30",
            QSize(1280, 720));
        row("the settings ask for a size not offered", "yuyv422 640x480@30, mjpeg 1280x720@30",
            "mjpeg 1280x720@30", QSize(1024, 768));
        row("nothing offered", "", "");
    }
    void theLargestSizeThatKeepsTheRateIsChosen()
    {
        QFETCH(QString, offered);
        QFETCH(QSize, wanted);
        QFETCH(QString, chosen);
        const auto choice = CameraMode::choose(
            modes(offered), wanted.isValid() ? std::optional(wanted) : std::nullopt);
        QCOMPARE(choice ? std::vector{*choice} : std::vector<CameraMode>{}, modes(chosen));
    }

    // The capture thread fell behind or the driver skipped pictures: the newest waiting is
    // taken, the others are skipped, not queued, and counted lost with any gap in the stamps.
    void theNewestPictureIsTakenAndTheRestCountedLost()
    {
        // The index of the picture taken and the number lost, after `previous` was taken.
        const auto choose = [](Stamps stamps, std::optional<std::int64_t> previous,
                               double frameDuration = 1.0 / 30) {
            const NewestBuffer choice = NewestBuffer::choose(stamps, previous, frameDuration);
            return std::pair(int(choice.index), choice.lost);
        };
        const std::optional<std::int64_t> first, second(1'000'000);
        QCOMPARE(choose({5'000'000}, first), std::pair(0, 0));        // the very first picture
        QCOMPARE(choose({}, first), std::pair(0, 0));                 // nothing waiting
        QCOMPARE(choose({1'100'000}, second), std::pair(0, 2));       // the driver skipped two
        QCOMPARE(choose({1'080'000}, second, 0.04), std::pair(0, 1)); // 25 fps: a gap of one
        QCOMPARE(choose({1'033'333, 1'133'333}, second), std::pair(1, 1 + 2)); // and a gap
        // Jitter of a third of a frame is no loss; stamps that go back say nothing.
        QCOMPARE(choose({1'045'000, 1'078'000}, second), std::pair(1, 1));
        QCOMPARE(choose({900'000, 0}, second), std::pair(1, 1));
    }

    // One decoder is given damaged pictures and whole ones: it refuses each damaged one and
    // decodes the next whole one.
    void aDamagedPictureIsRefused()
    {
        QImage image(320, 240, QImage::Format_RGB32);
        image.fill(Qt::darkBlue);
        QPainter(&image).fillRect(40, 40, 200, 120, Qt::yellow);
        QByteArray jpeg;
        QBuffer buffer(&jpeg);
        QVERIFY(buffer.open(QIODevice::WriteOnly) && image.save(&buffer, "JPG", 75));
        AVCodecParameters* format = avcodec_parameters_alloc();
        format->codec_type = AVMEDIA_TYPE_VIDEO;
        format->codec_id = AV_CODEC_ID_MJPEG;
        format->width = 320;
        format->height = 240;
        const auto decoder = CameraDecoder::open(*format);
        avcodec_parameters_free(&format);
        QVERIFY(decoder);
        const auto decodes = [&](const QByteArray& bytes, bool flaggedCorrupt = false) {
            const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.constData());
            return decoder->decode(data, int(bytes.size()), flaggedCorrupt);
        };
        QVERIFY(!decodes(jpeg.chopped(2))); // the end marker alone is missing
        QVERIFY(!decodes(jpeg.mid(600)));   // the header is missing
        QVERIFY(!decodes({}));
        QVERIFY(!decodes(jpeg, true));                  // whole, but the driver flagged it corrupt
        QVERIFY(decodes(jpeg + QByteArray(512, '\0'))); // padded with zeros by the camera
        QCOMPARE(QSize(decoder->picture().width, decoder->picture().height), QSize(320, 240));
        QVERIFY(decodes(jpeg));
    }

    // The frame rate is the count of frames in the last second, and stands while no frame
    // comes. A frame's moment of capture is now less the age of its presentation time: none
    // known, a quarter second, three seconds (at most one counts), from the future.
    void framesAreCountedAndStampedWithTheirMomentOfCapture()
    {
        ManualClock clock;
        CapturePipeline pipeline(clock);
        StampedSource source;
        for (int i = 0; i < 100; ++i, clock.advance(0.04))
            pipeline.captureFrame(source);
        const CaptureStats stats = pipeline.stats();
        QVERIFY2(stats.framesPerSecond == 25 || stats.framesPerSecond == 26,
                 qPrintable(QString::number(stats.framesPerSecond)));
        QCOMPARE(QSize(stats.width, stats.height), QSize(8, 4));
        clock.advance(5.0);
        QCOMPARE(pipeline.stats().framesPerSecond, stats.framesPerSecond);
        const std::pair<std::optional<double>, double> agesThenStamped[] = {
            {std::nullopt, 0.0}, {0.25, 0.25}, {3.0, 1.0}, {-2.0, 0.0}};
        for (const auto& [secondsAgo, age] : agesThenStamped) {
            source.nextPresentedAt =
                secondsAgo ? std::optional(addSeconds(clock.now(), -*secondsAgo)) : std::nullopt;
            const auto frame = pipeline.captureFrame(source);
            QCOMPARE(frame->capturedAt, addSeconds(clock.now(), -age));
            QCOMPARE(frame->wallCapturedAt, addSeconds(clock.wallNow(), -age));
            QCOMPARE(frame->frameDuration, 1.0 / 25);
        }
        QCOMPARE(pipeline.stats().framesPerSecond, 4.0);
    }

    // Pictures are lost only when the capture thread wakes too late or the pool is spent. It
    // serves a recording while the web viewer and NDI hold two frames each, older than the
    // recorder's at times (both at once by frame 156); a consumer that keeps every frame spends
    // it, and then pictures are dropped, not waited for.
    void framesAreLostOnlyWhenMissedOrThePoolIsSpent()
    {
        ManualClock clock;
        CapturePipeline pipeline(clock);
        TestPatternSource source(clock, 64, 36, 30, TestPatternSource::Pacing::stepped);
        std::vector<std::shared_ptr<KeepingSink>> busiest{
            std::make_shared<KeepingSink>(std::size_t(Recorder::kHeldFrames)),
            std::make_shared<KeepingSink>(2, 12), std::make_shared<KeepingSink>(2, 13)};
        for (const auto& sink : busiest)
            pipeline.addSink(sink);
        // The test pattern's next picture; none when it is not due, or was dropped.
        const auto capture = [&] {
            return source.waitForFrame(Seconds(0)) == VideoSource::Wait::frameReady
                       ? pipeline.captureFrame(source)
                       : nullptr;
        };
        QVERIFY(capture());
        // The thread wakes three and a half frames late: the missed pictures are lost.
        clock.advance(3.5 / 30);
        QCOMPARE(capture()->number, 3);
        QCOMPARE(pipeline.stats().droppedFrames, 2);
        for (int i = 0; i < 200; ++i) {
            clock.advance(1.0 / 30);
            QVERIFY2(capture(), qPrintable(QString("frame %1").arg(i)));
        }
        QCOMPARE(pipeline.stats().droppedFrames, 2);

        for (const auto& sink : busiest)
            pipeline.removeSink(sink.get());
        busiest.clear();
        auto keeping = std::make_shared<KeepingSink>();
        pipeline.addSink(keeping);
        for (int i = 0; i < CapturePipeline::kPoolFrames + 3; ++i) {
            clock.advance(1.0 / 30);
            capture();
        }
        QCOMPARE(int(keeping->frames.size()), CapturePipeline::kPoolFrames);
        QCOMPARE(pipeline.stats().droppedFrames, 2 + 3);
        keeping->frames.clear();
        clock.advance(1.0 / 30);
        QVERIFY(capture());
    }

    void everySinkAndThePreviewGetTheSameFrame()
    {
        ManualClock clock;
        CapturePipeline pipeline(clock);
        StampedSource source;
        // The first sink removes itself while it is called.
        auto leaving = std::make_shared<KeepingSink>();
        auto staying = std::make_shared<KeepingSink>();
        leaving->duringCall = [&] { pipeline.removeSink(leaving.get()); };
        pipeline.addSink(leaving);
        pipeline.addSink(staying);
        const auto frame = pipeline.captureFrame(source);
        QCOMPARE(pipeline.latestFrame(), frame);
        QCOMPARE(leaving->frames.at(0), frame);
        QCOMPARE(staying->frames.at(0), frame);
        pipeline.captureFrame(source);
        QCOMPARE(leaving->frames.size(), std::size_t(1));
        QCOMPARE(staying->frames.size(), std::size_t(2));
    }

    void mirroringFlipsEachRowAndItsChroma()
    {
        ManualClock clock;
        CapturePipeline plain(clock), mirrored(clock);
        mirrored.setMirrored(true);
        TestPatternSource first(clock, 160, 90, 30, TestPatternSource::Pacing::stepped);
        TestPatternSource second(clock, 160, 90, 30, TestPatternSource::Pacing::stepped);
        const QImage picture = yuv::toRgb(plain.captureFrame(first)->planes());
        const QImage flipped = yuv::toRgb(mirrored.captureFrame(second)->planes());
        QVERIFY(flipped != picture);
        QCOMPARE(flipped, picture.mirrored(true, false));
    }

    // The window's view: scaled and converted by libswscale, colours as the pipeline's own
    // conversion gives them (channel order, video range), at an odd width too.
    void thePreviewKeepsTheColours()
    {
        QImage quarters(320, 180, QImage::Format_RGB32);
        const QList<QColor> colours{QColor(220, 30, 30), QColor(30, 200, 60), QColor(40, 50, 230),
                                    QColor(128, 128, 128)};
        for (int i = 0; i < 4; ++i)
            QPainter(&quarters).fillRect(QRect((i % 2) * 160, (i / 2) * 90, 160, 90), colours[i]);
        const YuvImage frame = YuvImage::fromRgb(quarters);
        FramePreview preview;
        const QImage shown = preview.convert(frame.planes(), QSize(161, 91));
        QCOMPARE(shown.size(), QSize(161, 91));
        for (int i = 0; i < 4; ++i) {
            const QColor got = shown.pixelColor(40 + (i % 2) * 80, 22 + (i / 2) * 45);
            QVERIFY2(std::abs(got.red() - colours[i].red()) <= 6 &&
                         std::abs(got.green() - colours[i].green()) <= 6 &&
                         std::abs(got.blue() - colours[i].blue()) <= 6,
                     qPrintable(got.name() + " for " + colours[i].name()));
        }
        QCOMPARE(shown.pixel(160, 80), shown.pixel(159, 80));
    }

    // A sine of amplitude A has the average power A²/2: at half scale doubled, -3.01 dB;
    // muted, the floor.
    void soundLevelsFollowTheGain()
    {
        for (const auto& [gain, level] : {std::pair(2.0f, -3.01f), std::pair(0.0f, -160.0f)}) {
            ManualClock clock;
            CapturePipeline pipeline(clock);
            pipeline.setGain(gain);
            ToneSource tone(clock, 1000.0, 0.5);
            AudioBuffer buffer;
            clock.advance(0.1);
            while (tone.read(buffer) == AudioSource::Read::buffer)
                pipeline.captureAudio(buffer);
            const auto levels = pipeline.stats().audioLevels;
            QCOMPARE(levels.size(), std::size_t(2));
            for (float measured : levels)
                QVERIFY2(std::abs(measured - level) < 0.05f, qPrintable(QString::number(measured)));
        }
    }
};

QTEST_GUILESS_MAIN(CapturePipelineTest)
#include "CapturePipelineTest.moc"
