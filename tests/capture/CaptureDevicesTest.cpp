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
Q_DECLARE_METATYPE(Stamps)
Q_DECLARE_METATYPE(std::optional<std::int64_t>)
Q_DECLARE_METATYPE(Ranges)
Q_DECLARE_METATYPE(std::optional<FrameRateRange>)

namespace {

// "mjpeg 1920x1080@30": one way to deliver pictures, at one rate. MJPEG is compressed, NV12
// takes 1.5 bytes a pixel and the other raw formats 2.
CameraMode mode(const QString& spec)
{
    static const QRegularExpression form(QStringLiteral("(\\w+) (\\d+)x(\\d+)@(\\d+)"));
    const auto match = form.match(spec);
    const QString format = match.captured(1);
    const bool compressed = format == QLatin1String("mjpeg");
    const double fps = match.captured(4).toDouble();
    return {format,
            compressed,
            match.captured(2).toInt(),
            match.captured(3).toInt(),
            compressed                        ? 0
            : format == QLatin1String("nv12") ? 1.5
                                              : 2,
            {{fps, fps}}};
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
    void nodesThatAreNotCamerasAreLeftOut();
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
    QTest::newRow("60 among 30 and 15")
        << Ranges{{30, 30}, {1, 60}, {15, 15}} << std::optional(FrameRateRange{1, 60});
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
    QTest::addColumn<QStringList>("offered");
    QTest::addColumn<QSize>("wanted"); // none when not valid
    QTest::addColumn<QString>("chosen");
    QTest::newRow("plugged in at 640x480, offers 1080p30: 1080p30")
        << QStringList{"yuyv422 640x480@30", "yuyv422 1280x720@10", "yuyv422 1920x1080@5",
                       "mjpeg 640x480@30",   "mjpeg 1280x720@30",   "mjpeg 1920x1080@30"}
        << QSize() << "mjpeg 1920x1080@30";
    QTest::newRow("a larger size only at 5 fps: the largest at 30")
        << QStringList{"yuyv422 640x480@5", "yuyv422 320x240@30", "yuyv422 1920x1080@5"} << QSize()
        << "yuyv422 320x240@30";
    QTest::newRow("raw beats compressed at the same size where it fits")
        << QStringList{"mjpeg 320x240@30", "yuyv422 320x240@30"} << QSize() << "yuyv422 320x240@30";
    QTest::newRow("raw that does not fit at its rate: compressed")
        << QStringList{"yuyv422 640x480@30", "mjpeg 640x480@30"} << QSize() << "mjpeg 640x480@30";
    QTest::newRow("4K is not recorded: 1080p")
        << QStringList{"mjpeg 3840x2160@30", "mjpeg 1920x1080@30", "mjpeg 1280x720@30"} << QSize()
        << "mjpeg 1920x1080@30";
    QTest::newRow("only 4K: 4K rather than nothing")
        << QStringList{"mjpeg 3840x2160@15"} << QSize() << "mjpeg 3840x2160@15";
    QTest::newRow("60 fps keeps 30 too") << QStringList{"mjpeg 1920x1080@60", "mjpeg 1280x720@30"}
                                         << QSize() << "mjpeg 1920x1080@60";
    QTest::newRow("a camera that tops out at 15 fps: its largest at 15")
        << QStringList{"yuyv422 160x120@15", "yuyv422 320x240@15"} << QSize()
        << "yuyv422 320x240@15";
    QTest::newRow("raw that does not fit the bus is left out")
        << QStringList{"nv12 1920x1080@30", "mjpeg 1280x720@30"} << QSize() << "mjpeg 1280x720@30";
    QTest::newRow("the settings ask for 720p")
        << QStringList{"yuyv422 640x480@30", "mjpeg 1280x720@30", "mjpeg 1920x1080@30"}
        << QSize(1280, 720) << "mjpeg 1280x720@30";
    QTest::newRow("the settings ask for a size not offered")
        << QStringList{"yuyv422 640x480@30", "mjpeg 1280x720@30"} << QSize(1024, 768)
        << "mjpeg 1280x720@30";
    QTest::newRow("nothing offered") << QStringList{} << QSize() << "";
}

void CaptureDevicesTest::theLargestSizeThatKeepsTheRateIsChosen()
{
    QFETCH(QStringList, offered);
    QFETCH(QSize, wanted);
    QFETCH(QString, chosen);
    std::vector<CameraMode> modes;
    for (const QString& spec : offered)
        modes.push_back(mode(spec));
    QCOMPARE(CameraMode::choose(modes, wanted.isValid() ? std::optional(wanted) : std::nullopt),
             chosen.isEmpty() ? std::nullopt : std::optional(mode(chosen)));
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
    const std::optional<std::int64_t> second(1'000'000); // the last picture taken
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
    QTest::newRow("cut short, then padded")
        << jpeg.left(jpeg.size() / 2) + QByteArray(512, '\0') << false << false;
    QTest::newRow("the end marker alone is missing") << jpeg.chopped(2) << false << false;
    QTest::newRow("the header is missing") << jpeg.mid(600) << false << false;
    QTest::newRow("empty") << QByteArray() << false << false;
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

void CaptureDevicesTest::nodesThatAreNotCamerasAreLeftOut()
{
    QTemporaryDir folder;
    QVERIFY(QFile::link(QStringLiteral("/dev/null"), folder.filePath(QStringLiteral("video0"))));
    QFile plain(folder.filePath(QStringLiteral("video1")));
    QVERIFY(plain.open(QIODevice::WriteOnly));
    plain.close();
    CaptureDevices devices(folder.path());
    QCOMPARE(devices.cameras(), std::vector{TestPatternSource::source()});
    QCOMPARE(devices.cameras().back().name, QStringLiteral("Test Pattern"));
    QCOMPARE(devices.cameraAuthorization(), CaptureDevices::Authorization::authorized);
    // Listing again finds the same: observers are not woken.
    QSignalSpy changed(&devices, &CaptureDevices::camerasChanged);
    devices.refresh();
    QCOMPARE(changed.count(), 0);
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
