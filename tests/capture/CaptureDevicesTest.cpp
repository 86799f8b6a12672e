#include "capture/CaptureDevices.h"

#include "capture/CameraDecoder.h"
#include "capture/CameraMode.h"
#include "capture/NewestBuffer.h"
#include "capture/TestPatternSource.h"

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <QPainter>
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
Q_DECLARE_METATYPE(Stamps)
Q_DECLARE_METATYPE(std::optional<std::int64_t>)
Q_DECLARE_METATYPE(Ranges)
Q_DECLARE_METATYPE(std::optional<FrameRateRange>)
Q_DECLARE_METATYPE(orvane::CameraMode)
Q_DECLARE_METATYPE(std::optional<orvane::CameraMode>)
Q_DECLARE_METATYPE(std::optional<QSize>)

namespace {

CameraMode mode(const char* format, bool compressed, int width, int height, double fps,
                double bytesPerPixel = 2)
{
    return {QString::fromLatin1(format), compressed, width, height, bytesPerPixel, {{fps, fps}}};
}

} // namespace

class CaptureDevicesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void onlyNodesThatCaptureVideoCount_data();
    void onlyNodesThatCaptureVideoCount();
    void theFastestRangeWins_data();
    void theFastestRangeWins();
    void theLargestSizeThatKeepsTheRateIsChosen_data();
    void theLargestSizeThatKeepsTheRateIsChosen();
    void theNewestPictureIsTakenAndTheRestCountedLost_data();
    void theNewestPictureIsTakenAndTheRestCountedLost();
    void aDamagedPictureIsRefused_data();
    void aDamagedPictureIsRefused();
    void theTestPatternIsListedAfterRealCameras();
    void nodesThatAreNotCamerasAreLeftOut();
    void anUnknownCameraCannotBeOpened();
    void aDeniedNodeDeniesOnlyItself();
};

void CaptureDevicesTest::onlyNodesThatCaptureVideoCount_data()
{
    QTest::addColumn<quint32>("capabilities");
    QTest::addColumn<quint32>("deviceCapabilities");
    QTest::addColumn<bool>("camera");
    const quint32 capture = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    QTest::newRow("capture node") << capture << 0u << true;
    QTest::newRow("multi-planar capture")
        << quint32(V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_STREAMING) << 0u << true;
    // A UVC camera has a second node for metadata; the driver reports the whole device's
    // capabilities, and the node's own in device_caps.
    QTest::newRow("metadata node of a camera")
        << quint32(capture | V4L2_CAP_META_CAPTURE | V4L2_CAP_DEVICE_CAPS)
        << quint32(V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING) << false;
    QTest::newRow("capture node of the same camera")
        << quint32(capture | V4L2_CAP_META_CAPTURE | V4L2_CAP_DEVICE_CAPS) << capture << true;
    QTest::newRow("output only") << quint32(V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING) << 0u
                                 << false;
    QTest::newRow("capture without streaming") << quint32(V4L2_CAP_VIDEO_CAPTURE) << 0u << false;
    QTest::newRow("nothing") << 0u << 0u << false;
}

void CaptureDevicesTest::onlyNodesThatCaptureVideoCount()
{
    QFETCH(quint32, capabilities);
    QFETCH(quint32, deviceCapabilities);
    QFETCH(bool, camera);
    QCOMPARE(CaptureDevices::capturesVideo(capabilities, deviceCapabilities), camera);
}

void CaptureDevicesTest::theFastestRangeWins_data()
{
    QTest::addColumn<Ranges>("ranges");
    QTest::addColumn<std::optional<FrameRateRange>>("fastest");
    QTest::newRow("30 and 60") << Ranges{{1, 30}, {1, 60}} << std::optional(FrameRateRange{1, 60});
    QTest::newRow("60 first") << Ranges{{60, 60}, {30, 30}, {15, 15}}
                              << std::optional(FrameRateRange{60, 60});
    QTest::newRow("a tie keeps the first")
        << Ranges{{5, 30}, {30, 30}} << std::optional(FrameRateRange{5, 30});
    QTest::newRow("none") << Ranges{} << std::optional<FrameRateRange>();
}

void CaptureDevicesTest::theFastestRangeWins()
{
    QFETCH(Ranges, ranges);
    QFETCH(std::optional<FrameRateRange>, fastest);
    QCOMPARE(CameraMode::fastest(ranges), fastest);
}

void CaptureDevicesTest::theLargestSizeThatKeepsTheRateIsChosen_data()
{
    QTest::addColumn<std::vector<CameraMode>>("offered");
    QTest::addColumn<std::optional<QSize>>("wanted");
    QTest::addColumn<std::optional<CameraMode>>("chosen");
    const auto rawSD = mode("yuyv422", false, 640, 480, 30);
    const auto rawSmall = mode("yuyv422", false, 320, 240, 30);
    const auto rawHD = mode("yuyv422", false, 1280, 720, 10);
    const auto rawFullHD = mode("yuyv422", false, 1920, 1080, 5);
    const auto mjpegSD = mode("mjpeg", true, 640, 480, 30, 0);
    const auto mjpegHD = mode("mjpeg", true, 1280, 720, 30, 0);
    const auto mjpegFullHD = mode("mjpeg", true, 1920, 1080, 30, 0);
    const auto mjpegFullHD60 = mode("mjpeg", true, 1920, 1080, 60, 0);
    const auto mjpeg4K = mode("mjpeg", true, 3840, 2160, 30, 0);
    const auto mjpeg4KSlow = mode("mjpeg", true, 3840, 2160, 15, 0);
    const auto rawSlowCamera = mode("yuyv422", false, 320, 240, 15);
    const auto rawTinySlow = mode("yuyv422", false, 160, 120, 15);
    const auto rawSDSlow = mode("yuyv422", false, 640, 480, 5);
    const auto mjpegSmall = mode("mjpeg", true, 320, 240, 30, 0);
    const auto nv12FullHD = mode("nv12", false, 1920, 1080, 30, 1.5);
    const std::optional<QSize> any;
    using Modes = std::vector<CameraMode>;
    QTest::newRow("plugged in at 640x480, offers 1080p30: 1080p30")
        << Modes{rawSD, rawHD, rawFullHD, mjpegSD, mjpegHD, mjpegFullHD} << any
        << std::optional(mjpegFullHD);
    QTest::newRow("a larger size only at 5 fps: the largest at 30")
        << Modes{rawSDSlow, rawSmall, rawFullHD} << any << std::optional(rawSmall);
    QTest::newRow("raw beats compressed at the same size where it fits")
        << Modes{mjpegSmall, rawSmall} << any << std::optional(rawSmall);
    QTest::newRow("raw that does not fit at its rate: compressed")
        << Modes{rawSD, mjpegSD} << any << std::optional(mjpegSD);
    QTest::newRow("4K is not recorded: 1080p")
        << Modes{mjpeg4K, mjpegFullHD, mjpegHD} << any << std::optional(mjpegFullHD);
    QTest::newRow("only 4K: 4K rather than nothing")
        << Modes{mjpeg4KSlow} << any << std::optional(mjpeg4KSlow);
    QTest::newRow("60 fps keeps 30 too")
        << Modes{mjpegFullHD60, mjpegHD} << any << std::optional(mjpegFullHD60);
    QTest::newRow("a camera that tops out at 15 fps: its largest at 15")
        << Modes{rawTinySlow, rawSlowCamera} << any << std::optional(rawSlowCamera);
    QTest::newRow("raw that does not fit the bus is left out")
        << Modes{nv12FullHD, mjpegHD} << any << std::optional(mjpegHD);
    QTest::newRow("the settings ask for 720p")
        << Modes{rawSD, mjpegHD, mjpegFullHD} << std::optional(QSize(1280, 720))
        << std::optional(mjpegHD);
    QTest::newRow("the settings ask for a size not offered")
        << Modes{rawSD, mjpegHD} << std::optional(QSize(1024, 768)) << std::optional(mjpegHD);
    QTest::newRow("nothing offered") << Modes{} << any << std::optional<CameraMode>();
}

void CaptureDevicesTest::theLargestSizeThatKeepsTheRateIsChosen()
{
    QFETCH(std::vector<CameraMode>, offered);
    QFETCH(std::optional<QSize>, wanted);
    QFETCH(std::optional<CameraMode>, chosen);
    QCOMPARE(CameraMode::choose(offered, wanted), chosen);
}

void CaptureDevicesTest::theNewestPictureIsTakenAndTheRestCountedLost_data()
{
    QTest::addColumn<Stamps>("stamps");
    QTest::addColumn<std::optional<std::int64_t>>("previous");
    QTest::addColumn<double>("frameDuration");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("lost");
    const double fps30 = 1.0 / 30;
    const std::optional<std::int64_t> first;
    QTest::newRow("one picture, on time")
        << Stamps{1'033'333} << std::optional<std::int64_t>(1'000'000) << fps30 << 0 << 0;
    QTest::newRow("the very first picture") << Stamps{5'000'000} << first << fps30 << 0 << 0;
    // The capture thread fell behind: the driver holds three; two are skipped, not queued.
    QTest::newRow("three waiting") << Stamps{1'033'333, 1'066'667, 1'100'000}
                                   << std::optional<std::int64_t>(1'000'000) << fps30 << 2 << 2;
    QTest::newRow("the driver skipped two")
        << Stamps{1'100'000} << std::optional<std::int64_t>(1'000'000) << fps30 << 0 << 2;
    QTest::newRow("a gap between waiting pictures")
        << Stamps{1'033'333, 1'133'333} << std::optional<std::int64_t>(1'000'000) << fps30 << 1
        << 1 + 2;
    QTest::newRow("jitter of a third of a frame is no loss")
        << Stamps{1'045'000, 1'078'000} << std::optional<std::int64_t>(1'000'000) << fps30 << 1
        << 1;
    QTest::newRow("25 fps, a gap of one")
        << Stamps{1'080'000} << std::optional<std::int64_t>(1'000'000) << 0.04 << 0 << 1;
    QTest::newRow("stamps that go back say nothing")
        << Stamps{900'000, 0} << std::optional<std::int64_t>(1'000'000) << fps30 << 1 << 1;
    QTest::newRow("nothing waiting") << Stamps{} << first << fps30 << 0 << 0;
}

void CaptureDevicesTest::theNewestPictureIsTakenAndTheRestCountedLost()
{
    QFETCH(Stamps, stamps);
    QFETCH(std::optional<std::int64_t>, previous);
    QFETCH(double, frameDuration);
    QFETCH(int, index);
    QFETCH(int, lost);
    const auto choice = NewestBuffer::choose(stamps, previous, frameDuration);
    QCOMPARE(int(choice.index), index);
    QCOMPARE(choice.lost, lost);
}

void CaptureDevicesTest::aDamagedPictureIsRefused_data()
{
    QImage image(320, 240, QImage::Format_RGB32);
    image.fill(Qt::darkBlue);
    QPainter(&image).fillRect(40, 40, 200, 120, Qt::yellow);
    QByteArray jpeg;
    QBuffer buffer(&jpeg);
    buffer.open(QIODevice::WriteOnly);
    QVERIFY(image.save(&buffer, "JPG", 75));
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("corrupt");
    QTest::addColumn<bool>("decoded");
    QTest::newRow("whole picture") << jpeg << false << true;
    QTest::newRow("whole, padded with zeros by the camera")
        << jpeg + QByteArray(512, '\0') << false << true;
    QTest::newRow("flagged corrupt by the driver") << jpeg << true << false;
    QTest::newRow("cut short by a lost transfer") << jpeg.left(jpeg.size() / 2) << false << false;
    QTest::newRow("cut short, then padded")
        << jpeg.left(jpeg.size() / 2) + QByteArray(512, '\0') << false << false;
    QTest::newRow("the end marker alone is missing") << jpeg.chopped(2) << false << false;
    QTest::newRow("the header is missing") << jpeg.mid(600) << false << false;
    QTest::newRow("empty") << QByteArray() << false << false;
    QTest::newRow("not a picture") << QByteArray(4000, 'x') << false << false;
}

void CaptureDevicesTest::aDamagedPictureIsRefused()
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
    QCOMPARE(decoder->decode(reinterpret_cast<const std::uint8_t*>(bytes.constData()),
                             int(bytes.size()), corrupt),
             decoded);
    if (decoded) {
        QCOMPARE(decoder->picture().width, 320);
        QCOMPARE(decoder->picture().height, 240);
    }
}

void CaptureDevicesTest::theTestPatternIsListedAfterRealCameras()
{
    CaptureDevices devices;
    QVERIFY(!devices.cameras().empty());
    QCOMPARE(devices.cameras().back(), TestPatternSource::source());
    QCOMPARE(devices.cameras().back().name, QStringLiteral("Test Pattern"));
    for (std::size_t i = 0; i + 1 < devices.cameras().size(); ++i)
        QVERIFY(devices.cameras()[i].id != TestPatternSource::kID);
    QCOMPARE(devices.cameraAuthorization(), CaptureDevices::Authorization::authorized);
}

void CaptureDevicesTest::nodesThatAreNotCamerasAreLeftOut()
{
    QTemporaryDir folder;
    QVERIFY(QFile::link(QStringLiteral("/dev/null"), folder.filePath(QStringLiteral("video0"))));
    QFile plain(folder.filePath(QStringLiteral("video1")));
    QVERIFY(plain.open(QIODevice::WriteOnly));
    plain.close();
    CaptureDevices devices(folder.path());
    QCOMPARE(devices.cameras(), std::vector{TestPatternSource::source()});
    // Listing again finds the same: observers are not woken.
    QSignalSpy changed(&devices, &CaptureDevices::camerasChanged);
    devices.refresh();
    QCOMPARE(changed.count(), 0);
}

void CaptureDevicesTest::anUnknownCameraCannotBeOpened()
{
    QVERIFY(!CaptureDevices::openCamera(QStringLiteral("/dev/video-that-is-not-there"),
                                        Clock::system()));
    QVERIFY(!CaptureDevices::openCamera(QStringLiteral("/dev/null"), Clock::system()));
    QVERIFY(!CaptureDevices::openMicrophone(QStringLiteral("no-such-source"), Clock::system()));
}

namespace {

// Takes away root's right to open any file whatever its mode, while it lives.
class WithoutFileAccessOverride {
public:
    WithoutFileAccessOverride()
    {
        header_.version = _LINUX_CAPABILITY_VERSION_3;
        ::syscall(SYS_capget, &header_, saved_);
        __user_cap_data_struct reduced[2] = {saved_[0], saved_[1]};
        reduced[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        ::syscall(SYS_capset, &header_, reduced);
    }
    ~WithoutFileAccessOverride() { ::syscall(SYS_capset, &header_, saved_); }

private:
    __user_cap_header_struct header_{};
    __user_cap_data_struct saved_[2]{};
};

} // namespace

void CaptureDevicesTest::aDeniedNodeDeniesOnlyItself()
{
    // Numbers no real node has, so sysfs knows nothing of them.
    QTemporaryDir folder;
    QFile denied(folder.filePath(QStringLiteral("video97")));
    QVERIFY(denied.open(QIODevice::WriteOnly));
    denied.close();
    QVERIFY(denied.setPermissions({}));
    QFile other(folder.filePath(QStringLiteral("video98")));
    QVERIFY(other.open(QIODevice::WriteOnly));
    other.close();
    WithoutFileAccessOverride unprivileged;
    {
        QFile probe(denied.fileName());
        if (probe.open(QIODevice::ReadOnly))
            QSKIP("this process may open any file (running with privileges it cannot drop)");
    }
    CaptureDevices devices(folder.path());
    const QString deniedID = denied.fileName();
    QCOMPARE(devices.cameras(), (std::vector<CaptureSource>{{deniedID, QStringLiteral("video97")},
                                                            TestPatternSource::source()}));
    QCOMPARE(devices.cameraAuthorization(deniedID), CaptureDevices::Authorization::denied);
    QCOMPARE(devices.cameraAuthorization(TestPatternSource::kID),
             CaptureDevices::Authorization::authorized);
    // No camera of this computer can be opened: the user must be given access.
    QCOMPARE(devices.cameraAuthorization(), CaptureDevices::Authorization::denied);
}

QTEST_GUILESS_MAIN(CaptureDevicesTest)
#include "CaptureDevicesTest.moc"
