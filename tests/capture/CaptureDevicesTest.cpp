#include "capture/CaptureDevices.h"

#include "capture/CameraDecoder.h"
#include "capture/CameraMode.h"
#include "capture/NewestBuffer.h"
#include "capture/TestPatternSource.h"

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <linux/capability.h>
#include <linux/videodev2.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

using namespace orvane;

using Ranges = std::vector<FrameRateRange>;
using Stamps = std::vector<std::int64_t>;

namespace {

// "mjpeg 1920x1080@30, yuyv422 640x480@5": ways to deliver pictures, each at one rate. MJPEG
// is compressed, NV12 takes 1.5 bytes a pixel and the other raw formats 2.
std::vector<CameraMode> modes(const QString& specs)
{
    static const QRegularExpression form("(\\w+) (\\d+)x(\\d+)@(\\d+)");
    std::vector<CameraMode> modes;
    for (auto match = form.globalMatch(specs); match.hasNext();) {
        const auto m = match.next();
        const bool compressed = m.captured(1) == "mjpeg";
        const double fps = m.captured(4).toDouble();
        modes.push_back({m.captured(1),
                         compressed,
                         m.captured(2).toInt(),
                         m.captured(3).toInt(),
                         compressed                ? 0
                         : m.captured(1) == "nv12" ? 1.5
                                                   : 2,
                         {{fps, fps}}});
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

} // namespace

class CaptureDevicesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void onlyNodesThatCaptureVideoCount_data()
    {
        QTest::addColumn<quint32>("capabilities");
        QTest::addColumn<quint32>("deviceCapabilities");
        QTest::addColumn<bool>("camera");
        const quint32 capture = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
        const quint32 uvc = capture | V4L2_CAP_META_CAPTURE | V4L2_CAP_DEVICE_CAPS;
        QTest::newRow("capture node") << capture << 0u << true;
        QTest::newRow("multi-planar capture")
            << quint32(V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_STREAMING) << 0u << true;
        // A UVC camera has a second node for metadata; the driver reports the whole device's
        // capabilities, and the node's own in device_caps.
        QTest::newRow("metadata node of a camera")
            << uvc << quint32(V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING) << false;
        QTest::newRow("capture node of the same camera") << uvc << capture << true;
        QTest::newRow("output only")
            << quint32(V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING) << 0u << false;
        QTest::newRow("capture without streaming")
            << quint32(V4L2_CAP_VIDEO_CAPTURE) << 0u << false;
    }
    void onlyNodesThatCaptureVideoCount()
    {
        QFETCH(quint32, capabilities);
        QFETCH(quint32, deviceCapabilities);
        QFETCH(bool, camera);
        QCOMPARE(CaptureDevices::capturesVideo(capabilities, deviceCapabilities), camera);
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
        row("60 fps keeps 30 too", "mjpeg 1920x1080@60, mjpeg 1280x720@30", "mjpeg 1920x1080@60");
        row("a camera that tops out at 15 fps: its largest at 15",
            "yuyv422 160x120@15, yuyv422 320x240@15", "yuyv422 320x240@15");
        row("raw that does not fit the bus is left out", "nv12 1920x1080@30, mjpeg 1280x720@30",
            "mjpeg 1280x720@30");
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

    void theNewestPictureIsTakenAndTheRestCountedLost_data()
    {
        QTest::addColumn<Stamps>("stamps");
        QTest::addColumn<std::optional<std::int64_t>>("previous"); // the last picture taken
        QTest::addColumn<double>("frameDuration");
        QTest::addColumn<int>("index");
        QTest::addColumn<int>("lost");
        const double fps30 = 1.0 / 30;
        const std::optional<std::int64_t> first, second(1'000'000);
        QTest::newRow("one picture, on time") << Stamps{1'033'333} << second << fps30 << 0 << 0;
        QTest::newRow("the very first picture") << Stamps{5'000'000} << first << fps30 << 0 << 0;
        // The capture thread fell behind: the driver holds three; two are skipped, not queued.
        QTest::newRow("three waiting")
            << Stamps{1'033'333, 1'066'667, 1'100'000} << second << fps30 << 2 << 2;
        QTest::newRow("the driver skipped two") << Stamps{1'100'000} << second << fps30 << 0 << 2;
        QTest::newRow("a gap between waiting pictures")
            << Stamps{1'033'333, 1'133'333} << second << fps30 << 1 << 1 + 2;
        QTest::newRow("jitter of a third of a frame is no loss")
            << Stamps{1'045'000, 1'078'000} << second << fps30 << 1 << 1;
        QTest::newRow("25 fps, a gap of one") << Stamps{1'080'000} << second << 0.04 << 0 << 1;
        QTest::newRow("stamps that go back say nothing")
            << Stamps{900'000, 0} << second << fps30 << 1 << 1;
        QTest::newRow("nothing waiting") << Stamps{} << first << fps30 << 0 << 0;
    }
    void theNewestPictureIsTakenAndTheRestCountedLost()
    {
        QFETCH(Stamps, stamps);
        QFETCH(std::optional<std::int64_t>, previous);
        QFETCH(double, frameDuration);
        QFETCH(int, index);
        QFETCH(int, lost);
        const auto choice = NewestBuffer::choose(stamps, previous, frameDuration);
        QCOMPARE(std::pair(int(choice.index), choice.lost), std::pair(index, lost));
    }

    void aDamagedPictureIsRefused_data()
    {
        QImage image(320, 240, QImage::Format_RGB32);
        image.fill(Qt::darkBlue);
        QPainter(&image).fillRect(40, 40, 200, 120, Qt::yellow);
        QByteArray jpeg;
        QBuffer buffer(&jpeg);
        QVERIFY(buffer.open(QIODevice::WriteOnly) && image.save(&buffer, "JPG", 75));
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("corrupt");
        QTest::addColumn<bool>("decoded");
        const QByteArray zeros(512, '\0');
        QTest::newRow("whole picture") << jpeg << false << true;
        QTest::newRow("whole, padded with zeros by the camera") << jpeg + zeros << false << true;
        QTest::newRow("flagged corrupt by the driver") << jpeg << true << false;
        QTest::newRow("cut short, then padded")
            << jpeg.left(jpeg.size() / 2) + zeros << false << false;
        QTest::newRow("the end marker alone is missing") << jpeg.chopped(2) << false << false;
        QTest::newRow("the header is missing") << jpeg.mid(600) << false << false;
        QTest::newRow("empty") << QByteArray() << false << false;
    }
    void aDamagedPictureIsRefused()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, corrupt);
        QFETCH(bool, decoded);
        AVCodecParameters* format = avcodec_parameters_alloc();
        format->codec_type = AVMEDIA_TYPE_VIDEO;
        format->codec_id = AV_CODEC_ID_MJPEG;
        format->width = 320;
        format->height = 240;
        auto decoder = CameraDecoder::open(*format);
        avcodec_parameters_free(&format);
        QVERIFY(decoder);
        const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.constData());
        QCOMPARE(decoder->decode(data, int(bytes.size()), corrupt), decoded);
        if (decoded)
            QCOMPARE(QSize(decoder->picture().width, decoder->picture().height), QSize(320, 240));
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
        QVERIFY(!CaptureDevices::openCamera("/dev/null", Clock::system()));
        QVERIFY(!CaptureDevices::openMicrophone("no-such-source", Clock::system()));
    }
};

QTEST_GUILESS_MAIN(CaptureDevicesTest)
#include "CaptureDevicesTest.moc"
