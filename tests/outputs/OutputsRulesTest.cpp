// The outputs' pure rules: when a request is whole, the JPEG's size, who may watch, the addresses
// shown, the NDI frame rate and layout, and where the NDI runtime is looked for.

#include "base/ManualClock.h"
#include "capture/Frame.h"
#include "capture/FramePool.h"
#include "capture/TestPatternSource.h"
#include "outputs/JpegEncoder.h"
#include "outputs/LocalNetwork.h"
#include "outputs/NDILibrary.h"
#include "outputs/NDIOutput.h"
#include "outputs/WebRequest.h"

#include <QImage>
#include <QTest>

#include <cmath>

using namespace orvane;

namespace {

InterfaceAddress entry(const char* address, int prefix, bool up = true, bool loopback = false)
{
    return {QHostAddress(QString::fromLatin1(address)), prefix, up, loopback};
}

} // namespace

class OutputsRulesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void waitsForTheWholeHeader_data()
    {
        QTest::addColumn<QByteArray>("request");
        const QByteArray whole = "GET /stream.mjpg HTTP/1.1\r\nHost: a\r\nAccept: */*\r\n\r\n";
        // Every prefix short of the end of the header is not yet a request.
        for (qsizetype cut : {0, 1, 5, 26, 36, int(whole.size()) - 1})
            QTest::addRow("first %d bytes", int(cut)) << whole.first(cut);
        QTest::newRow("lines ended by LF only") << QByteArray("GET / HTTP/1.1\n\n");
        QTest::newRow("CR CR LF LF") << QByteArray("GET / HTTP/1.1\r\r\n\n");
    }
    void waitsForTheWholeHeader()
    {
        QFETCH(QByteArray, request);
        QVERIFY(!answerWebRequest(request).has_value());
    }

    void encodesScaledPictures_data()
    {
        QTest::addColumn<QSize>("frameSize");
        QTest::addColumn<QSize>("jpegSize");
        QTest::newRow("small, as it is") << QSize(640, 360) << QSize(640, 360);
        QTest::newRow("2160p, halved") << QSize(3840, 2160) << QSize(1920, 1080);
        QTest::newRow("odd sizes, scaled") << QSize(3001, 1001) << QSize(1920, 640);
        QTest::newRow("just off halving") << QSize(3842, 2162) << QSize(1920, 1080);
        QTest::newRow("one row") << QSize(4000, 1) << QSize(1920, 1);
    }
    void encodesScaledPictures()
    {
        QFETCH(QSize, frameSize);
        QFETCH(QSize, jpegSize);
        FramePool pool(frameSize.width(), frameSize.height(), 1); // rows padded, as a camera's
        const std::shared_ptr<Frame> frame = pool.acquire();
        ManualClock clock;
        TestPatternSource(clock, frame->width, frame->height, 30,
                          TestPatternSource::Pacing::stepped)
            .paint(*frame, 17);
        // Compared in colour: a JPEG made from video-range planes without the range brought to
        // full (or with the planes mixed up) is off by far more.
        const QImage expected =
            yuv::toRgb(frame->planes())
                .scaled(jpegSize, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        JpegEncoder encoder;
        for (int round = 0; round < 2; ++round) { // the second reuses the scaler and buffers
            const QImage picture = QImage::fromData(encoder.encode(*frame), "JPEG");
            QCOMPARE(picture.size(), jpegSize);
            double difference = 0;
            for (int y = 0; y < jpegSize.height(); ++y)
                for (int x = 0; x < jpegSize.width(); ++x) {
                    const QRgb a = picture.pixel(x, y), b = expected.pixel(x, y);
                    difference += qAbs(qRed(a) - qRed(b)) + qAbs(qGreen(a) - qGreen(b)) +
                                  qAbs(qBlue(a) - qBlue(b));
                }
            difference /= 3.0 * jpegSize.width() * jpegSize.height();
            QVERIFY2(difference < 6, qPrintable(QString::number(difference)));
        }
    }

    // Ours: 203.0.113.5/24 and 2001:db8:1::1/64 on interfaces that are up, 198.51.100.1/24 down.
    void admitsLocalViewers_data()
    {
        QTest::addColumn<QString>("peer");
        QTest::addColumn<bool>("admitted");
        for (const char* peer :
             {"10.1.2.3", "127.0.0.1", "169.254.10.20", "172.16.0.1", "172.31.255.254",
              "192.168.1.50", "203.0.113.77", "::ffff:192.168.0.9", "::1", "fe80::1234",
              "fd12:3456::1", "2001:db8:1::42"})
            QTest::newRow(peer) << QString(peer) << true;
        for (const char* peer : {"172.32.0.1", "172.15.255.255", "8.8.8.8", "203.0.114.1",
                                 "198.51.100.9", "::ffff:8.8.4.4", "2001:4860::8888"})
            QTest::newRow(peer) << QString(peer) << false;
    }
    void admitsLocalViewers()
    {
        QFETCH(QString, peer);
        QFETCH(bool, admitted);
        const QList<InterfaceAddress> own = {entry("203.0.113.5", 24),
                                             entry("198.51.100.1", 24, /*up=*/false),
                                             entry("2001:db8:1::1", 64)};
        QCOMPARE(isLocalNetworkPeer(QHostAddress(peer), own), admitted);
    }

    void listsAddresses_data()
    {
        QTest::addColumn<QList<InterfaceAddress>>("own");
        QTest::addColumn<QString>("hostName");
        QTest::addColumn<QStringList>("addresses");
        QTest::newRow("interface order, host name last")
            << QList{entry("192.168.1.20", 24), entry("10.0.0.7", 8)} << QString("stage")
            << QStringList{"http://192.168.1.20:8090", "http://10.0.0.7:8090",
                           "http://stage.local:8090"};
        QTest::newRow("loopback, down, link-local and IPv6 left out")
            << QList{entry("127.0.0.1", 8, true, true), entry("10.1.1.1", 8, false),
                     entry("169.254.3.4", 16),          entry("fe80::1", 64),
                     entry("2001:db8::5", 64),          entry("172.20.0.2", 16)}
            << QString("stage") << QStringList{"http://172.20.0.2:8090", "http://stage.local:8090"};
        QTest::newRow("no netmask, no host name")
            << QList{entry("192.168.2.2", -1), entry("192.168.3.3", 24)} << QString()
            << QStringList{"http://192.168.3.3:8090"};
    }
    void listsAddresses()
    {
        QFETCH(QList<InterfaceAddress>, own);
        QFETCH(QString, hostName);
        QFETCH(QStringList, addresses);
        QCOMPARE(
            webAddressesFor(own, hostName.isEmpty() ? std::nullopt : std::optional(hostName), 8090),
            addresses);
    }

    void announcesFrameRates_data()
    {
        QTest::addColumn<double>("duration");
        QTest::addColumn<NDIFrameRate>("rate");
        QTest::newRow("25") << 0.04 << NDIFrameRate{25, 1};
        QTest::newRow("60") << 1.0 / 60 << NDIFrameRate{60, 1};
        QTest::newRow("29.97") << 1001.0 / 30000 << NDIFrameRate{30000, 1001};
        QTest::newRow("23.976") << 1001.0 / 24000 << NDIFrameRate{24000, 1001};
        QTest::newRow("12.5") << 0.08 << NDIFrameRate{12500, 1000};
        for (double invalid : {0.0, std::nan(""), 86400.0, 1e-12}) // none, a day, far too fast
            QTest::addRow("invalid %g", invalid) << invalid << NDIFrameRate{30, 1};
    }
    void announcesFrameRates()
    {
        QFETCH(double, duration);
        QFETCH(NDIFrameRate, rate);
        QCOMPARE(ndiFrameRate(duration), rate);
    }

    void keepsThePublishedLayout()
    {
        // The stand-in runtime is built from the same header, so only this sees a field moved
        // away from where the real runtime reads it on a 64-bit system.
        QCOMPARE(offsetof(NDIlib_video_frame_v2_t, timecode), std::size_t(32));
        QCOMPARE(offsetof(NDIlib_video_frame_v2_t, p_data), std::size_t(40));
        QCOMPARE(offsetof(NDIlib_video_frame_v2_t, line_stride_in_bytes), std::size_t(48));
        QCOMPARE(offsetof(NDIlib_video_frame_v2_t, p_metadata), std::size_t(56));
        QCOMPARE(sizeof(NDIlib_video_frame_v2_t), std::size_t(72));
        QCOMPARE(sizeof(NDIlib_send_create_t), std::size_t(24));
    }

    void searchesForTheRuntime_data()
    {
        QTest::addColumn<std::optional<QString>>("v6");
        QTest::addColumn<std::optional<QString>>("v5");
        QTest::addColumn<QStringList>("firstFolders");
        QTest::newRow("neither variable")
            << std::optional<QString>() << std::optional<QString>()
            << QStringList{"/opt/orvane/bin", "/usr/local/lib", "/usr/lib"};
        QTest::newRow("both, V6 first")
            << std::optional<QString>("/opt/ndi6/lib/") << std::optional<QString>("/opt/ndi5")
            << QStringList{"/opt/orvane/bin", "/opt/ndi6/lib", "/opt/ndi5", "/usr/local/lib",
                           "/usr/lib"};
    }
    void searchesForTheRuntime()
    {
        QFETCH(std::optional<QString>, v6);
        QFETCH(std::optional<QString>, v5);
        QFETCH(QStringList, firstFolders);
        const QStringList paths = NDILibrary::candidatePaths("/opt/orvane/bin", v6, v5);
        QStringList expected;
        for (const QString& folder : firstFolders)
            expected << folder + "/libndi.so.6" << folder + "/libndi.so.5";
        QCOMPARE(paths.mid(0, expected.size()), expected);
        QVERIFY(paths.size() - expected.size() <= 2); // only the multiarch folder may follow
    }
};

QTEST_GUILESS_MAIN(OutputsRulesTest)
#include "OutputsRulesTest.moc"
