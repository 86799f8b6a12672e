#include "capture/CaptureDevices.h"

#include "capture/CameraMode.h"
#include "capture/TestPatternSource.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <linux/videodev2.h>

using namespace orvane;

using Ranges = std::vector<FrameRateRange>;
Q_DECLARE_METATYPE(Ranges)
Q_DECLARE_METATYPE(std::optional<FrameRateRange>)
Q_DECLARE_METATYPE(orvane::CameraMode)

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
    void compressedPicturesAreChosenWhenRawWouldNotFit_data();
    void compressedPicturesAreChosenWhenRawWouldNotFit();
    void theTestPatternIsListedAfterRealCameras();
    void nodesThatAreNotCamerasAreLeftOut();
    void anUnknownCameraCannotBeOpened();
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
    QTest::newRow("a tie keeps the first") << Ranges{{5, 30}, {30, 30}}
                                           << std::optional(FrameRateRange{5, 30});
    QTest::newRow("none") << Ranges{} << std::optional<FrameRateRange>();
}

void CaptureDevicesTest::theFastestRangeWins()
{
    QFETCH(Ranges, ranges);
    QFETCH(std::optional<FrameRateRange>, fastest);
    QCOMPARE(CameraMode::fastest(ranges), fastest);
}

void CaptureDevicesTest::compressedPicturesAreChosenWhenRawWouldNotFit_data()
{
    QTest::addColumn<CameraMode>("active");
    QTest::addColumn<std::vector<CameraMode>>("offered");
    QTest::addColumn<CameraMode>("chosen");
    const auto rawSmall = mode("yuyv422", false, 320, 240, 30);
    const auto rawHD = mode("yuyv422", false, 1280, 720, 10);
    const auto mjpegHD = mode("mjpeg", true, 1280, 720, 30, 0);
    const auto mjpegFullHD = mode("mjpeg", true, 1920, 1080, 30, 0);
    QTest::newRow("small raw fits") << rawSmall << std::vector{rawSmall, mjpegHD} << rawSmall;
    QTest::newRow("HD raw does not fit") << rawHD << std::vector{rawHD, mjpegHD} << mjpegHD;
    QTest::newRow("no compressed format at that size")
        << rawHD << std::vector{rawHD, mjpegFullHD} << rawHD;
    QTest::newRow("already compressed") << mjpegHD << std::vector{rawHD, mjpegHD} << mjpegHD;
}

void CaptureDevicesTest::compressedPicturesAreChosenWhenRawWouldNotFit()
{
    QFETCH(CameraMode, active);
    QFETCH(std::vector<CameraMode>, offered);
    QFETCH(CameraMode, chosen);
    QCOMPARE(CameraMode::choose(active, offered), chosen);
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

QTEST_GUILESS_MAIN(CaptureDevicesTest)
#include "CaptureDevicesTest.moc"
