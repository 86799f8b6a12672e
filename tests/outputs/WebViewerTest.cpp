// The web viewer: its HTTP rules, JPEGs and local-network rules as pure functions, and the
// server against real clients on loopback: its answers byte for byte, raw sockets for bad, idle
// and stalled viewers, a viewer on another network, and fifty viewers at once.

#include "outputs/WebViewer.h"
#include "base/ManualClock.h"
#include "capture/FramePool.h"
#include "capture/TestPatternSource.h"
#include "outputs/JpegEncoder.h"
#include "outputs/LocalNetwork.h"
#include "outputs/WebRequest.h"
#include "support/NetNamespace.h"

#include <QElapsedTimer>
#include <QImage>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace orvane;

namespace {

int freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

// Starts `viewer` on a free port; returns the port, or 0 when it does not listen.
int serve(WebViewer& viewer, int port = freePort())
{
    viewer.start(port);
    return QTest::qWaitFor([&] { return viewer.state() == WebViewer::State::listening(port); },
                           5000)
               ? port
               : 0;
}

// The server still answers the next browser (curl, a real one).
bool stillServes(int port)
{
    QProcess curl;
    curl.start("curl", {"-s", "--http1.1", QString("http://127.0.0.1:%1/nothing").arg(port)});
    return curl.waitForFinished(10000) && curl.readAllStandardOutput() == "Not found";
}

InterfaceAddress entry(const char* address, int prefix, bool up = true, bool loopback = false)
{
    return {QHostAddress(QString::fromLatin1(address)), prefix, up, loopback};
}

bool connectTo(int fd, quint32 ipv4, int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(quint16(port));
    address.sin_addr.s_addr = htonl(ipv4);
    return ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

// A viewer of the stream that reads everything as it comes, as a browser does: the HTTP
// header, then parts of "--frame\r\nContent-Type: image/jpeg\r\nContent-Length: N\r\n\r\n" +
// N bytes + "\r\n", in pieces of any size. It marks the stream broken at the first byte that
// does not fit.
struct StreamViewer {
    QTcpSocket socket;
    QByteArray buffer, header, lastJpeg;
    int parts = 0;
    bool broken = false;

    explicit StreamViewer(int port)
    {
        QObject::connect(&socket, &QTcpSocket::readyRead, [this] { read(socket.readAll()); });
        socket.connectToHost(QHostAddress::LocalHost, quint16(port));
        socket.write("GET /stream.mjpg HTTP/1.1\r\nHost: test\r\n\r\n");
    }
    void read(const QByteArray& bytes)
    {
        static const QByteArray start = "--frame\r\nContent-Type: image/jpeg\r\nContent-Length: ";
        buffer += bytes;
        if (header.isEmpty() && buffer.contains("\r\n\r\n")) {
            header = buffer.first(buffer.indexOf("\r\n\r\n") + 4);
            buffer.remove(0, header.size());
        }
        while (!header.isEmpty() && !broken) {
            const qsizetype lengthEnd = buffer.indexOf("\r\n\r\n");
            const int length = lengthEnd > start.size()
                                   ? buffer.mid(start.size(), lengthEnd - start.size()).toInt()
                                   : 0;
            const qsizetype end = lengthEnd + 4 + length + 2;
            broken = !buffer.startsWith(start.first(std::min(buffer.size(), start.size()))) ||
                     (lengthEnd < 0 ? buffer.size() > start.size() + 12 : length <= 0);
            if (broken || lengthEnd < 0 || buffer.size() < end)
                return;
            broken = buffer.mid(end - 2, 2) != "\r\n";
            lastJpeg = buffer.mid(lengthEnd + 4, length);
            parts += broken ? 0 : 1;
            buffer.remove(0, end);
        }
    }
};

// Test pattern frames from a pool, as a camera makes them.
struct Pictures {
    ManualClock clock;
    FramePool pool;
    TestPatternSource pattern;
    std::int64_t number = 0;
    Pictures(int width, int height)
        : pool(width, height, 8)
        , pattern(clock, width, height, 30, TestPatternSource::Pacing::stepped)
    {
    }
    std::shared_ptr<const Frame> next()
    {
        auto frame = pool.acquire();
        if (frame)
            pattern.paint(*frame, number++);
        return frame;
    }
};

QByteArray plain(const QByteArray& status, const QByteArray& type, const QByteArray& body,
                 qsizetype length)
{
    return "HTTP/1.1 " + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + QByteArray::number(length) +
           "\r\nCache-Control: no-cache\r\nConnection: close\r\n\r\n" + body;
}

const QByteArray kStreamHeader =
    "HTTP/1.1 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=frame\r\n"
    "Cache-Control: no-cache, no-store\r\nPragma: no-cache\r\nConnection: close\r\n\r\n";

} // namespace

class WebViewerTest : public QObject {
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

    // Each request on a connection of its own, with the request time-out at 1 s.
    void answersByteForByte_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QByteArray>("answer");   // none: closed without one
        QTest::addColumn<int>("trickleMs");       // a byte every so often, else all at once
        QTest::addColumn<double>("closedWithin"); // seconds
        const auto row = [](const char* name, const QByteArray& request, const QByteArray& answer,
                            double closedWithin = 1, int trickleMs = 0) {
            QTest::newRow(name) << request << answer << trickleMs << closedWithin;
        };
        const QByteArray page = webPage(), html = "text/html; charset=utf-8";
        const QByteArray pageAnswer = plain("200 OK", html, page, page.size());
        const QByteArray notFound = plain("404 Not Found", "text/plain", "Not found", 9);
        const QByteArray notAllowed =
            plain("405 Method Not Allowed", "text/plain", "Method not allowed", 18);
        const QByteArray tail = " HTTP/1.1\r\nHost: stage:8090\r\n\r\n";
        row("page", "GET /" + tail, pageAnswer);
        row("empty path is the page", "GET ?x" + tail, pageAnswer);
        row("page, HEAD has no body", "HEAD /" + tail, plain("200 OK", html, {}, page.size()));
        row("stream, query ignored", "GET /stream.mjpg?123" + tail, kStreamHeader);
        row("stream, HEAD", "HEAD /stream.mjpg" + tail,
            plain("200 OK", "multipart/x-mixed-replace; boundary=frame", {}, 0));
        row("unknown path", "GET /favicon.ico" + tail, notFound);
        row("unknown path, HEAD", "HEAD /favicon.ico" + tail,
            plain("404 Not Found", "text/plain", {}, 9));
        row("path is case-sensitive", "GET /Stream.mjpg" + tail, notFound);
        row("POST", "POST /" + tail, notAllowed);
        row("lower-case method", "get /" + tail, notAllowed);
        row("method alone", "GET\r\n\r\n", notAllowed);
        row("spaces run together", "GET   /stream.mjpg   HTTP/1.1\r\n\r\n", kStreamHeader);
        row("no version", "GET /\r\n\r\n", pageAnswer);
        row("NUL in the path", QByteArray("GET /stream.mjpg\0x HTTP/1.1\r\n\r\n", 32), notFound);
        // Bad input: answered or closed in time, and the server stays for the next browser.
        row("not HTTP, with an end of header",
            QByteArray("\x16\x03\x01\x00\xa5\x01\x00\x00\xa1\x03\x03\r\n\r\n", 15), notAllowed);
        row("not HTTP, no end of header: closed at the request time-out",
            QByteArray("\x16\x03\x01\x00\xa5\x01\x00\x00\xa1\x03\x03", 11), {}, 2);
        row("100 KB without an end of header: closed at once",
            "GET /" + QByteArray(100 * 1024, 'a'), {});
        row("a byte every 0.3 s: closed at the request time-out", "GET /stream.mjpg" + tail, {}, 2,
            300);
        row("POST with a body",
            "POST / HTTP/1.1\r\nContent-Length: 3000\r\n\r\n" + QByteArray(3000, 'p'), notAllowed,
            3);
    }
    void answersByteForByte()
    {
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, answer);
        QFETCH(int, trickleMs);
        QFETCH(double, closedWithin);
        WebViewer viewer({/*request=*/1, /*stalledSend=*/5});
        const int port = serve(viewer);
        QVERIFY(port);
        QTcpSocket client;
        QByteArray received;
        QObject::connect(&client, &QTcpSocket::readyRead, [&] { received += client.readAll(); });
        client.connectToHost(QHostAddress::LocalHost, quint16(port));
        QVERIFY(client.waitForConnected(3000));
        QElapsedTimer clock;
        clock.start();
        QTimer trickle;
        QObject::connect(&trickle, &QTimer::timeout, [&] {
            if (client.state() == QAbstractSocket::ConnectedState && !request.isEmpty()) {
                client.write(request.first(1));
                request.remove(0, 1);
            }
        });
        if (trickleMs > 0)
            trickle.start(trickleMs);
        else
            client.write(request);
        // Every answer but the stream's ends the connection; the stream makes a viewer.
        const bool isStream = answer == kStreamHeader;
        QTRY_VERIFY_WITH_TIMEOUT(isStream ? received.size() >= answer.size()
                                          : client.state() == QAbstractSocket::UnconnectedState,
                                 int(closedWithin * 1000) + 1000);
        QVERIFY2(clock.elapsed() <= closedWithin * 1000 + 500,
                 qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(received, answer);
        QTRY_COMPARE(viewer.viewers(), isStream ? 1 : 0);
        QVERIFY(stillServes(port));
    }

    // Frames are encoded only for viewers, at most one each 40 ms and one at a time; a 4K
    // frame is sent 1920 wide; a viewer that leaves is counted out.
    void pacesEncoding()
    {
        ManualClock clock;
        WebViewer viewer({}, clock);
        const int port = serve(viewer);
        QVERIFY(port);
        Pictures pictures(3840, 2160);
        std::vector<std::shared_ptr<const Frame>> frames(7); // painted ahead: painting 4K is slow
        std::generate(frames.begin(), frames.end(), [&] { return pictures.next(); });
        const auto send = [&](double after) {
            clock.advance(after);
            viewer.send(frames.back());
            frames.pop_back();
        };
        send(0); // nobody watches
        StreamViewer watcher(port);
        QTRY_COMPARE(viewer.viewers(), 1);
        QCOMPARE(viewer.encodedFramesForTesting(), 0);
        send(1);
        QTRY_COMPARE(watcher.parts, 1);
        send(0.039); // under 40 ms after the last: dropped
        QTest::qWait(100);
        QCOMPARE(watcher.parts, 1);
        send(0.001); // 40 ms: taken
        QTRY_COMPARE(watcher.parts, 2);
        send(0.1);
        send(0.1); // straight after: the 4K encode of the last is still running, so it is dropped
        QTRY_COMPARE(watcher.parts, 3);
        QTest::qWait(200);
        QCOMPARE(viewer.encodedFramesForTesting(), 3);
        send(0.1); // once the encode is done, the next frame is taken again
        QTRY_COMPARE(watcher.parts, 4);
        QVERIFY(!watcher.broken);
        QCOMPARE(watcher.header, kStreamHeader);
        QCOMPARE(QImage::fromData(watcher.lastJpeg, "JPEG").size(), QSize(1920, 1080));
        watcher.socket.disconnectFromHost();
        QTRY_COMPARE(viewer.viewers(), 0);
    }

    // A pretend host joined by a link of its own, each end with a single address and a route
    // to the other, so the viewer's address is on none of this computer's subnets.
    void admitsOnlyTheLocalNetwork_data()
    {
        QTest::addColumn<QString>("peer");
        QTest::addColumn<bool>("answered");
        QTest::newRow("private address") << "192.168.77.2" << true;
        QTest::newRow("public address, not on our subnet") << "198.51.100.7" << false;
    }
    void admitsOnlyTheLocalNetwork()
    {
        QFETCH(QString, peer);
        QFETCH(bool, answered);
        const QHostAddress ours("192.0.2.1");
        QString error;
        const auto host = NetNamespace::create("viewer", ours, QHostAddress(peer), 32, &error);
        QVERIFY2(host, qPrintable(error));
        QVERIFY2(NetNamespace::runIp({"route", "add", peer + "/32", "dev", host->localInterface()},
                                     &error) &&
                     host->runIpInside(
                         {"route", "add", "192.0.2.1/32", "dev", host->peerInterface()}, &error),
                 qPrintable(error));
        WebViewer viewer;
        const int port = serve(viewer);
        QVERIFY(port);
        const int fd = host->socket(SOCK_STREAM);
        QVERIFY(fd >= 0);
        const timeval wait{5, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        QVERIFY(connectTo(fd, ours.toIPv4Address(), port));
        ::send(fd, "GET /favicon.ico HTTP/1.1\r\n\r\n", 29, MSG_NOSIGNAL);
        QByteArray received;
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::recv(fd, buffer, sizeof buffer, 0)) > 0)
            received.append(buffer, count);
        const int lastError = count < 0 ? errno : 0;
        ::close(fd);
        QVERIFY2(lastError == 0 || lastError == ECONNRESET,
                 std::strerror(lastError)); // no time-out
        QCOMPARE(received.startsWith("HTTP/1.1 404 Not Found\r\n"), answered);
        QCOMPARE(received.isEmpty(), !answered);
    }

    void reportsPortFailures_data()
    {
        QTest::addColumn<int>("port");
        QTest::addColumn<bool>("taken");
        QTest::addColumn<QString>("message");
        const QString range = "Choose a port between 1 and 65535.";
        QTest::newRow("zero") << 0 << false << range;
        QTest::newRow("too large") << 65536 << false << range;
        QTest::newRow("negative") << -80 << false << range;
        const int port = freePort();
        QTest::newRow("in use")
            << port << true
            << QString("Port %1 is in use by another app. Choose a different port.").arg(port);
    }
    void reportsPortFailures()
    {
        QFETCH(int, port);
        QFETCH(bool, taken);
        QFETCH(QString, message);
        QTcpServer other;
        QVERIFY(!taken || other.listen(QHostAddress::Any, quint16(port)));
        WebViewer viewer;
        QSignalSpy changes(&viewer, &WebViewer::stateChanged);
        viewer.start(port);
        QTRY_COMPARE(viewer.state(), WebViewer::State::failed(message));
        QTest::qWait(50);
        QCOMPARE(changes.size(), 1);
    }

    // Fifty viewers keep the pace of the camera while one that stopped reading is dropped once
    // its send has stalled for the limit (1 s here). Twenty connections that never ask hold none
    // of it up, and go at the request time-out (2 s here). Stopped, the viewer closes every
    // connection and the port is free again at once.
    void servesFiftyViewersDropsAStalledOneAndRestarts()
    {
        WebViewer viewer({/*request=*/2, /*stalledSend=*/1});
        const int port = serve(viewer);
        QVERIFY(port);
        std::vector<std::unique_ptr<QTcpSocket>> idle(20);
        for (auto& socket : idle) {
            socket = std::make_unique<QTcpSocket>();
            socket->connectToHost(QHostAddress::LocalHost, quint16(port));
        }
        const auto idleConnected = [&] {
            return std::count_if(idle.begin(), idle.end(), [](const auto& socket) {
                return socket->state() == QAbstractSocket::ConnectedState;
            });
        };
        QTRY_COMPARE(idleConnected(), 20);
        std::vector<std::unique_ptr<StreamViewer>> watchers;
        for (int i = 0; i < 50; ++i)
            watchers.push_back(std::make_unique<StreamViewer>(port));
        QTRY_COMPARE_WITH_TIMEOUT(viewer.viewers(), 50, 5000);
        // A browser that asks for the stream and then never reads, with a small receive window.
        const int stalled = ::socket(AF_INET, SOCK_STREAM, 0);
        const int window = 16 * 1024;
        ::setsockopt(stalled, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
        QVERIFY(connectTo(stalled, INADDR_LOOPBACK, port));
        QCOMPARE(::send(stalled, "GET /stream.mjpg HTTP/1.1\r\n\r\n", 29, 0), 29);
        QTRY_COMPARE(viewer.viewers(), 51);

        Pictures pictures(1920, 1080);
        QTimer camera;
        QObject::connect(&camera, &QTimer::timeout, [&] { viewer.send(pictures.next()); });
        QElapsedTimer clock;
        clock.start();
        camera.start(33);
        // The stall begins once the kernel's buffers between the two ends are full, well under a
        // second at this rate.
        QTRY_COMPARE_WITH_TIMEOUT(viewer.viewers(), 50, 5000);
        const qint64 droppedAfter = clock.elapsed();
        QVERIFY2(droppedAfter >= 900, qPrintable(QString::number(droppedAfter)));
        const int encodedAtDrop = viewer.encodedFramesForTesting();
        std::vector<int> partsAtDrop;
        for (const auto& watcher : watchers)
            partsAtDrop.push_back(watcher->parts);
        // Ten frames more, to see everyone keep the pace after the drop too.
        QTRY_VERIFY_WITH_TIMEOUT(viewer.encodedFramesForTesting() >= encodedAtDrop + 10, 5000);
        camera.stop();
        QTest::qWait(300);
        ::close(stalled);
        const int encoded = viewer.encodedFramesForTesting();
        const qint64 elapsed = clock.elapsed();
        qInfo("encoded %d frames in %lld ms; the stalled viewer was dropped after %lld ms", encoded,
              elapsed, droppedAfter);
        // The camera at 30 a second, the web at no less than 5 on a loaded machine.
        QVERIFY2(encoded >= elapsed * 5 / 1000, qPrintable(QString::number(encoded)));
        for (std::size_t i = 0; i < watchers.size(); ++i) {
            const StreamViewer& watcher = *watchers[i];
            QVERIFY2(!watcher.broken && partsAtDrop[i] >= encodedAtDrop * 8 / 10 &&
                         watcher.parts >= encoded * 8 / 10,
                     qPrintable(QString::asprintf("viewer %zu: %d of %d before the drop, %d of %d",
                                                  i, partsAtDrop[i], encodedAtDrop, watcher.parts,
                                                  encoded)));
        }
        QTRY_COMPARE(idleConnected(), 0);
        viewer.stop();
        QTRY_COMPARE(viewer.state(), WebViewer::State{});
        QTRY_COMPARE(viewer.viewers(), 0);
        for (const auto& watcher : watchers)
            QTRY_COMPARE(watcher->socket.state(), QAbstractSocket::UnconnectedState);
        QCOMPARE(serve(viewer, port), port);
        QVERIFY(stillServes(port));
    }
};

QTEST_GUILESS_MAIN(WebViewerTest)
#include "WebViewerTest.moc"
