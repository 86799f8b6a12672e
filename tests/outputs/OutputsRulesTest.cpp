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
#include <limits>

using namespace orvane;

namespace {

InterfaceAddress entry(const char* address, int prefix, bool up = true, bool loopback = false)
{
    return {QHostAddress(QString::fromLatin1(address)), prefix, up, loopback};
}

} // namespace

class OutputsRulesTest : public QObject {
    Q_OBJECT

private slots:
    void waitsForTheWholeHeader_data();
    void waitsForTheWholeHeader();
    void encodesScaledPictures_data();
    void encodesScaledPictures();
    void admitsLocalViewers_data();
    void admitsLocalViewers();
    void listsAddresses_data();
    void listsAddresses();
    void announcesFrameRates_data();
    void announcesFrameRates();
    void keepsThePublishedLayout();
    void searchesForTheRuntime_data();
    void searchesForTheRuntime();
};

void OutputsRulesTest::waitsForTheWholeHeader_data()
{
    QTest::addColumn<QByteArray>("request");
    const QByteArray whole = "GET /stream.mjpg HTTP/1.1\r\nHost: a\r\nAccept: */*\r\n\r\n";
    // Every prefix short of the end of the header is not yet a request.
    for (qsizetype cut : {0, 1, 5, 26, 36, int(whole.size()) - 1})
        QTest::addRow("first %d bytes", int(cut)) << whole.first(cut);
    QTest::newRow("lines ended by LF only") << QByteArray("GET / HTTP/1.1\n\n");
    QTest::newRow("CR CR LF LF") << QByteArray("GET / HTTP/1.1\r\r\n\n");
}

void OutputsRulesTest::waitsForTheWholeHeader()
{
    QFETCH(QByteArray, request);
    QVERIFY(!answerWebRequest(request).has_value());
}

void OutputsRulesTest::encodesScaledPictures_data()
{
    QTest::addColumn<QSize>("frameSize");
    QTest::addColumn<QSize>("jpegSize");
    QTest::newRow("small, as it is") << QSize(640, 360) << QSize(640, 360);
    QTest::newRow("2160p, halved") << QSize(3840, 2160) << QSize(1920, 1080);
    QTest::newRow("odd sizes, scaled") << QSize(3001, 1001) << QSize(1920, 640);
    QTest::newRow("just off halving") << QSize(3842, 2162) << QSize(1920, 1080);
    QTest::newRow("one row") << QSize(4000, 1) << QSize(1920, 1);
}

void OutputsRulesTest::encodesScaledPictures()
{
    QFETCH(QSize, frameSize);
    QFETCH(QSize, jpegSize);
    FramePool pool(frameSize.width(), frameSize.height(), 1); // rows padded, as a camera's
    const std::shared_ptr<Frame> frame = pool.acquire();
    ManualClock clock;
    TestPatternSource(clock, frame->width, frame->height, 30, TestPatternSource::Pacing::stepped)
        .paint(*frame, 17);

    JpegEncoder encoder;
    for (int round = 0; round < 2; ++round) { // the second reuses the scaler and buffers
        const QImage picture = QImage::fromData(encoder.encode(*frame), "JPEG");
        QCOMPARE(picture.size(), jpegSize);
        // Compared in colour: a JPEG made from video-range planes without the range brought
        // to full (or with the planes mixed up) is off by far more.
        const QImage expected = yuv::toRgb(frame->planes())
                                    .scaled(jpegSize, Qt::IgnoreAspectRatio,
                                            Qt::SmoothTransformation);
        double difference = 0;
        for (int y = 0; y < jpegSize.height(); ++y) {
            for (int x = 0; x < jpegSize.width(); ++x) {
                const QRgb a = picture.pixel(x, y);
                const QRgb b = expected.pixel(x, y);
                difference += qAbs(qRed(a) - qRed(b)) + qAbs(qGreen(a) - qGreen(b)) +
                              qAbs(qBlue(a) - qBlue(b));
            }
        }
        difference /= 3.0 * jpegSize.width() * jpegSize.height();
        QVERIFY2(difference < 6, qPrintable(QString::number(difference)));
    }
}

void OutputsRulesTest::admitsLocalViewers_data()
{
    QTest::addColumn<QString>("peer");
    QTest::addColumn<bool>("admitted");
    // Ours: 203.0.113.5/24 and 2001:db8:1::1/64 on interfaces that are up, 198.51.100.1/24 down.
    const std::pair<const char*, bool> rows[] = {
        {"10.1.2.3", true},           {"127.0.0.1", true},       {"169.254.10.20", true},
        {"172.16.0.1", true},         {"172.31.255.254", true},  {"172.32.0.1", false},
        {"172.15.255.255", false},    {"192.168.1.50", true},    {"8.8.8.8", false},
        {"203.0.113.77", true},       {"203.0.114.1", false},    {"198.51.100.9", false},
        {"::ffff:192.168.0.9", true}, {"::ffff:8.8.4.4", false}, {"::1", true},
        {"fe80::1234", true},         {"fd12:3456::1", true},    {"2001:4860::8888", false},
        {"2001:db8:1::42", true}};
    for (const auto& [peer, admitted] : rows)
        QTest::newRow(peer) << QString::fromLatin1(peer) << admitted;
}

void OutputsRulesTest::admitsLocalViewers()
{
    QFETCH(QString, peer);
    QFETCH(bool, admitted);
    const QList<InterfaceAddress> own = {entry("203.0.113.5", 24),
                                         entry("198.51.100.1", 24, /*up=*/false),
                                         entry("2001:db8:1::1", 64)};
    QCOMPARE(isLocalNetworkPeer(QHostAddress(peer), own), admitted);
}

void OutputsRulesTest::listsAddresses_data()
{
    QTest::addColumn<QList<InterfaceAddress>>("own");
    QTest::addColumn<QString>("hostName");
    QTest::addColumn<QStringList>("addresses");
    QTest::newRow("interface order, host name last")
        << QList<InterfaceAddress>{entry("192.168.1.20", 24), entry("10.0.0.7", 8)}
        << QString("stage")
        << QStringList{"http://192.168.1.20:8090", "http://10.0.0.7:8090",
                       "http://stage.local:8090"};
    QTest::newRow("loopback, down, link-local and IPv6 left out")
        << QList<InterfaceAddress>{entry("127.0.0.1", 8, true, true), entry("10.1.1.1", 8, false),
                                   entry("169.254.3.4", 16),          entry("fe80::1", 64),
                                   entry("2001:db8::5", 64),          entry("172.20.0.2", 16)}
        << QString("stage") << QStringList{"http://172.20.0.2:8090", "http://stage.local:8090"};
    QTest::newRow("no netmask") << QList<InterfaceAddress>{entry("192.168.2.2", -1)} << QString()
                                << QStringList{};
    QTest::newRow("no host name") << QList<InterfaceAddress>{entry("192.168.2.2", 24)} << QString()
                                  << QStringList{"http://192.168.2.2:8090"};
}

void OutputsRulesTest::listsAddresses()
{
    QFETCH(QList<InterfaceAddress>, own);
    QFETCH(QString, hostName);
    QFETCH(QStringList, addresses);
    QCOMPARE(
        webAddressesFor(own, hostName.isEmpty() ? std::nullopt : std::optional(hostName), 8090),
        addresses);
}

void OutputsRulesTest::announcesFrameRates_data()
{
    QTest::addColumn<double>("duration");
    QTest::addColumn<int>("numerator");
    QTest::addColumn<int>("denominator");
    QTest::newRow("25") << 0.04 << 25 << 1;
    QTest::newRow("60") << 1.0 / 60 << 60 << 1;
    QTest::newRow("29.97") << 1001.0 / 30000 << 30000 << 1001;
    QTest::newRow("23.976") << 1001.0 / 24000 << 24000 << 1001;
    QTest::newRow("12.5") << 0.08 << 12500 << 1000;
    QTest::newRow("zero") << 0.0 << 30 << 1;
    QTest::newRow("NaN") << std::nan("") << 30 << 1;
    QTest::newRow("one frame a day") << 86400.0 << 30 << 1;
    QTest::newRow("far too fast") << 1e-12 << 30 << 1;
}

void OutputsRulesTest::announcesFrameRates()
{
    QFETCH(double, duration);
    QFETCH(int, numerator);
    QFETCH(int, denominator);
    const NDIFrameRate rate = ndiFrameRate(duration);
    QCOMPARE(rate.numerator, numerator);
    QCOMPARE(rate.denominator, denominator);
}

void OutputsRulesTest::keepsThePublishedLayout()
{
    // The stand-in runtime is built from the same header, so only this sees a field moved away
    // from where the real runtime reads it on a 64-bit system.
    QCOMPARE(offsetof(NDIlib_video_frame_v2_t, timecode), std::size_t(32));
    QCOMPARE(offsetof(NDIlib_video_frame_v2_t, p_data), std::size_t(40));
    QCOMPARE(offsetof(NDIlib_video_frame_v2_t, line_stride_in_bytes), std::size_t(48));
    QCOMPARE(offsetof(NDIlib_video_frame_v2_t, p_metadata), std::size_t(56));
    QCOMPARE(sizeof(NDIlib_video_frame_v2_t), std::size_t(72));
    QCOMPARE(sizeof(NDIlib_send_create_t), std::size_t(24));
}

void OutputsRulesTest::searchesForTheRuntime_data()
{
    QTest::addColumn<QString>("v6");
    QTest::addColumn<QString>("v5");
    QTest::addColumn<QStringList>("firstFolders");
    QTest::newRow("neither variable")
        << QString() << QString() << QStringList{"/opt/orvane/bin", "/usr/local/lib", "/usr/lib"};
    QTest::newRow("both, V6 first") << QString("/opt/ndi6/lib/") << QString("/opt/ndi5")
                                    << QStringList{"/opt/orvane/bin", "/opt/ndi6/lib", "/opt/ndi5",
                                                   "/usr/local/lib", "/usr/lib"};
}

void OutputsRulesTest::searchesForTheRuntime()
{
    QFETCH(QString, v6);
    QFETCH(QString, v5);
    QFETCH(QStringList, firstFolders);
    const QStringList paths = NDILibrary::candidatePaths(
        QStringLiteral("/opt/orvane/bin"), v6.isNull() ? std::nullopt : std::optional(v6),
        v5.isNull() ? std::nullopt : std::optional(v5));
    QStringList expected;
    for (const QString& folder : firstFolders)
        expected << folder + "/libndi.so.6" << folder + "/libndi.so.5";
    QCOMPARE(paths.mid(0, expected.size()), expected);
    // Only the multiarch folder may follow.
    QVERIFY(paths.size() - expected.size() <= 2);
}

QTEST_GUILESS_MAIN(OutputsRulesTest)
#include "OutputsRulesTest.moc"
