// The outgoing OSC link against real sockets on loopback, on a manual clock.
#include "osc/OSCStream.h"

#include "base/ManualClock.h"
#include "osc/OSCStreamDecoder.h"
#include "osc/TcpConnection.h"

#include <QDir>
#include <QElapsedTimer>
#include <QPointer>
#include <QScopeGuard>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace orvane;
using Status = OSCStream::Status;
using FailureKind = OSCStream::Failure::Kind;
Q_DECLARE_METATYPE(FailureKind)

namespace {

constexpr int kWaitMs = 5000;
const Status kConnecting{Status::Kind::connecting, {}, 0};
const Status kReady{Status::Kind::ready, {}, 0};

Status retrying(FailureKind kind, int attempt)
{
    return {Status::Kind::retrying, {kind, {}}, attempt};
}

// A port on loopback that nobody listens on.
int closedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort();
}

// An OSCStream on a manual clock with every callback recorded.
struct Link {
    ManualClock clock;
    OSCStream stream{clock};
    QList<Status> statuses;
    QByteArrayList packets;
    int readyCount = 0;

    Link()
    {
        stream.setOnStatusChange([this](const Status& status) { statuses.append(status); });
        stream.setOnPacket([this](const QByteArray& packet) { packets.append(packet); });
        stream.setOnReady([this] { ++readyCount; });
    }
    void connectTo(int port, OSCFraming framing = OSCFraming::slip,
                   const QString& host = QStringLiteral("127.0.0.1"))
    {
        stream.connectTo({host, port, framing, std::nullopt});
    }
};

// A peer that speaks whatever a test writes, on a port of loopback.
struct Peer {
    QTcpServer server;
    QList<QPointer<QTcpSocket>> sockets;

    explicit Peer(quint16 port = 0,
                  const QHostAddress& address = QHostAddress(QHostAddress::LocalHost))
    {
        server.listen(address, port);
        QObject::connect(&server, &QTcpServer::newConnection, [this] {
            while (server.hasPendingConnections())
                sockets.append(server.nextPendingConnection());
        });
    }
    int port() const { return server.serverPort(); }
    QTcpSocket* last() const { return sockets.isEmpty() ? nullptr : sockets.last().data(); }
    // Reads what the link sent until `count` packets have come.
    QByteArrayList read(OSCFraming framing, qsizetype count) const
    {
        OSCStreamDecoder decoder(framing);
        QByteArrayList got;
        (void)QTest::qWaitFor(
            [&] { return (got += decoder.decode(last()->readAll())).size() >= count; }, kWaitMs);
        return got;
    }
};

} // namespace

namespace QTest {
template <> char* toString(const Status& s)
{
    const auto text = QString::asprintf("%d(%d, %d)", int(s.kind), int(s.failure.kind), s.attempt);
    return qstrdup(qPrintable(text));
}
} // namespace QTest

class OSCStreamTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void retriesOnTheBackOffScheduleUntilReady();
    void packetsArriveInOrderAndSendsAreFramed_data();
    void packetsArriveInOrderAndSendsAreFramed();
    void badPeersNeverCrashTheLinkAndItKeepsRetrying_data();
    void badPeersNeverCrashTheLinkAndItKeepsRetrying();
    void quietPeerFailsAtTheFirstTickPastTheSilenceTimeout();
    void lastMessageReachesThePeerThroughADisconnect();
    void peerThatNeverAnswersTimesOutAfterFourSeconds();
    void interfaceRestrictionUsesAnInterfaceOfThatKind();
    void interfaceKindComesFromSysfs_data();
    void interfaceKindComesFromSysfs();
};

// A refused port retries after 1, 2, 3, 5, 8, then every 10 s; once ready the schedule starts
// over. The same target while ready does nothing; disconnecting leaves nothing pending.
void OSCStreamTest::retriesOnTheBackOffScheduleUntilReady()
{
    // A port outside 1...65535 fails at once, on the same schedule, without connecting.
    for (const int port : {0, 65536}) {
        Link invalid;
        invalid.connectTo(port);
        invalid.clock.advance(1.0);
        QCOMPARE(invalid.statuses, (QList<Status>{retrying(FailureKind::invalidPort, 1),
                                                  retrying(FailureKind::invalidPort, 2)}));
    }

    const int port = closedPort();
    Link link;
    link.connectTo(port);
    QTRY_COMPARE(link.stream.status(), retrying(FailureKind::refused, 1));
    const QList<double> delays{1, 2, 3, 5, 8, 10, 10};
    for (int failures = 1; failures <= delays.size(); ++failures) {
        link.clock.advance(delays[failures - 1] - 0.01);
        QCOMPARE(link.stream.status(), retrying(FailureKind::refused, failures));
        link.clock.advance(0.01);
        QCOMPARE_NE(link.stream.status(), retrying(FailureKind::refused, failures));
        QTRY_COMPARE(link.stream.status(), retrying(FailureKind::refused, failures + 1));
    }
    // Every attempt went through connecting.
    QCOMPARE(link.statuses.count(kConnecting), delays.size() + 1);
    QCOMPARE(link.readyCount, 0);

    // Retry now skips the wait of 10 s.
    Peer peer(port);
    QCOMPARE(peer.port(), port);
    link.stream.retryNow();
    QTRY_COMPARE(link.stream.status(), kReady);
    QTRY_VERIFY(peer.last());
    peer.last()->close();
    QTRY_COMPARE(link.stream.status(), retrying(FailureKind::closedByPeer, 1));
    // The count started over, so the next attempt comes after 1 s.
    link.clock.advance(1.0);
    QTRY_COMPARE(link.stream.status(), kReady);
    QCOMPARE(link.readyCount, 2);
    QTRY_COMPARE(peer.sockets.size(), 2);

    // Another framing is another target.
    const auto statuses = link.statuses;
    link.connectTo(port);
    QCOMPARE(link.statuses, statuses);
    link.connectTo(port, OSCFraming::lengthPrefixed);
    QTRY_COMPARE(link.readyCount, 3);
    QTRY_COMPARE(peer.sockets.size(), 3);

    link.stream.disconnect();
    QCOMPARE(link.stream.status(), Status{});
    QCOMPARE(link.stream.target(), std::nullopt);
    QTRY_COMPARE(peer.last()->state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(link.clock.pendingCount(), std::size_t(0));
    link.stream.retryNow();
    QCOMPARE(link.stream.status(), Status{});
}

// Through an address of either family, or a name the resolver turns into one.
void OSCStreamTest::packetsArriveInOrderAndSendsAreFramed_data()
{
    QTest::addColumn<OSCFraming>("framing");
    QTest::addColumn<QString>("host");
    QTest::addColumn<QHostAddress>("listening");
    const QHostAddress ipv4(QHostAddress::LocalHost);
    QTest::newRow("slip, IPv4") << OSCFraming::slip << "127.0.0.1" << ipv4;
    QTest::newRow("lengthPrefixed, IPv6")
        << OSCFraming::lengthPrefixed << "::1" << QHostAddress(QHostAddress::LocalHostIPv6);
    // Should the resolver name ::1 first, the IPv4 address is tried next.
    QTest::newRow("slip, a name") << OSCFraming::slip << "localhost" << ipv4;
}

void OSCStreamTest::packetsArriveInOrderAndSendsAreFramed()
{
    QFETCH(OSCFraming, framing);
    QFETCH(QString, host);
    QFETCH(QHostAddress, listening);
    Peer peer(0, listening);
    Link link;
    link.connectTo(peer.port(), framing, host);
    QTRY_COMPARE(link.stream.status(), kReady);
    QCOMPARE(link.readyCount, 1);
    QTRY_COMPARE(peer.sockets.size(), 1);

    QByteArrayList sent;
    QByteArray wire;
    for (int i = 0; i < 50; ++i) {
        sent.append(encodeOSC({"/eos/out/active/cue/text", {std::string(i * 37, 'c'), i}}));
        wire += frameOSCPacket(framing, sent.last());
    }
    // In uneven pieces, flushed one by one, so reads end mid-frame.
    for (qsizetype at = 0, piece = 1; at < wire.size(); at += piece, piece = piece * 3 % 1021) {
        peer.last()->write(wire.mid(at, piece));
        peer.last()->flush();
    }
    QTRY_COMPARE(link.packets.size(), sent.size());
    QCOMPARE(link.packets, sent);

    const OSCMessage message{"/eos/ping", {std::string("orvane"), 1.5f}};
    link.stream.send(message);
    link.stream.send(message);
    QCOMPARE(peer.read(framing, 2), QByteArrayList(2, encodeOSC(message)));
    QCOMPARE(link.stream.status(), kReady);
}

void OSCStreamTest::badPeersNeverCrashTheLinkAndItKeepsRetrying_data()
{
    QTest::addColumn<OSCFraming>("framing");
    QTest::addColumn<QByteArray>("sent");
    QTest::addColumn<bool>("reset");
    QTest::addColumn<FailureKind>("failure");
    const QByteArray frame = encodeSLIP(encodeOSC({"/eos/out/show/name", {std::string("x")}}));
    QTest::newRow("half a slip frame, then close")
        << OSCFraming::slip << frame.left(frame.size() / 2) << false << FailureKind::closedByPeer;
    QTest::newRow("half a length-prefixed frame, then reset")
        << OSCFraming::lengthPrefixed << encodeLengthPrefixed(QByteArray(100, 'x')).left(50) << true
        << FailureKind::closedByPeer;
    QTest::newRow("plain text on a slip link")
        << OSCFraming::slip << QByteArray(300 * 1024, 't') << false << FailureKind::wrongProtocol;
    QTest::newRow("plain text on a length-prefixed link")
        << OSCFraming::lengthPrefixed << QByteArray("HTTP/1.1 400 Bad Request\r\n\r\n") << false
        << FailureKind::wrongProtocol;
}

void OSCStreamTest::badPeersNeverCrashTheLinkAndItKeepsRetrying()
{
    QFETCH(OSCFraming, framing);
    QFETCH(QByteArray, sent);
    QFETCH(bool, reset);
    QFETCH(FailureKind, failure);
    Peer peer;
    Link link;
    link.connectTo(peer.port(), framing);
    for (int attempt = 1; attempt <= 2; ++attempt) {
        QTRY_COMPARE(link.stream.status(), kReady);
        QTRY_COMPARE(peer.sockets.size(), attempt);
        QTcpSocket* socket = peer.last();
        socket->write(sent);
        socket->flush();
        if (failure == FailureKind::closedByPeer) {
            QTest::qWait(20);             // the bytes arrive first, so the close comes mid-frame
            const linger lingerOff{1, 0}; // closing sends a reset instead of a FIN
            if (reset)
                ::setsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &lingerOff,
                             sizeof lingerOff);
            socket->abort();
        }
        QTRY_COMPARE(link.stream.status(), retrying(failure, 1));
        link.clock.advance(1.0);
    }
    QCOMPARE(link.readyCount, 2);
}

void OSCStreamTest::quietPeerFailsAtTheFirstTickPastTheSilenceTimeout()
{
    Peer peer;
    Link link;
    const OSCMessage ping{"/eos/ping", {}};
    int ticks = 0;
    link.stream.setKeepAlive(ping, [&] { ++ticks; });
    link.stream.setKeepAliveInterval(Seconds(2));
    link.stream.setSilenceTimeout(Seconds(5));
    link.connectTo(peer.port());
    QTRY_COMPARE(link.stream.status(), kReady);
    QTRY_VERIFY(peer.last());

    // Ticks every 2 s; a packet at 3 s keeps the link up through the tick at 8 s, when the
    // silence is exactly 5 s.
    link.clock.advance(3.0);
    peer.last()->write(encodeSLIP(encodeOSC({"/eos/out/ping", {}})));
    QTRY_COMPARE(link.packets.size(), 1);
    link.clock.advance(5.0);
    QCOMPARE(link.stream.status(), kReady);
    QCOMPARE(ticks, 4);
    // 10 s: 7 s after the last packet, the first tick past 5 s of silence.
    link.clock.advance(1.9);
    QCOMPARE(link.stream.status(), kReady);
    link.clock.advance(0.1);
    QCOMPARE(link.stream.status(), retrying(FailureKind::wentQuiet, 1));
    QCOMPARE(ticks, 5);
    // The peer heard every keep-alive that was sent while the link was up.
    QCOMPARE(peer.read(OSCFraming::slip, 5), QByteArrayList(5, encodeOSC(ping)));
}

// Turning a link off right after a last message ("/disconnect" to QLab) must still deliver it,
// even when the peer has sent input we never read and has not read what we sent: closing such
// a socket at once resets the connection and drops the queued bytes.
void OSCStreamTest::lastMessageReachesThePeerThroughADisconnect()
{
    Peer peer;
    Link link;
    link.connectTo(peer.port());
    QTRY_COMPARE(link.stream.status(), kReady);
    QTRY_VERIFY(peer.last());
    QTcpSocket* socket = peer.last();
    socket->setReadBufferSize(1); // the peer stops reading: the windows fill up

    for (int i = 0; i < 12; ++i)
        link.stream.send({"/bulk", {QByteArray(1 << 20, 'x')}});
    socket->write(QByteArray(64 * 1024, 'y')); // input that the link never reads
    socket->flush();
    link.stream.send(OSCMessage{"/disconnect", {}});
    link.stream.disconnect();

    socket->setReadBufferSize(0);
    OSCStreamDecoder decoder(OSCFraming::slip);
    QByteArrayList packets;
    QElapsedTimer waited;
    waited.start();
    while (socket->state() == QAbstractSocket::ConnectedState && waited.elapsed() < kWaitMs) {
        QTest::qWait(10);
        packets += decoder.decode(socket->readAll());
    }
    packets += decoder.decode(socket->readAll());
    QCOMPARE(packets.size(), 13);
    QVERIFY(decodeOSCMessage(packets.last()) == (OSCMessage{"/disconnect", {}}));
}

void OSCStreamTest::peerThatNeverAnswersTimesOutAfterFourSeconds()
{
    // A listener whose backlog is full: the kernel drops further handshakes unanswered.
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    const auto closeListener = qScopeGuard([&] { ::close(listener); });
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    QCOMPARE(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    QCOMPARE(::listen(listener, 0), 0);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    QTcpSocket fillers[3];
    for (QTcpSocket& filler : fillers)
        filler.connectToHost(QHostAddress::LocalHost, ntohs(address.sin_port));
    QTest::qWait(100);

    Link link;
    link.connectTo(ntohs(address.sin_port));
    QTest::qWait(100);
    QCOMPARE(link.stream.status(), kConnecting);
    link.clock.advance(3.9);
    QCOMPARE(link.stream.status(), kConnecting);
    link.clock.advance(0.1);
    QCOMPARE(link.stream.status(), retrying(FailureKind::noAnswer, 1));
}

// Loopback is neither wired nor Wi-Fi, so "other" reaches the peer through it. Without
// CAP_NET_RAW the kernel refuses SO_BINDTODEVICE; the link then binds to the interface's address
// instead of failing.
void OSCStreamTest::interfaceRestrictionUsesAnInterfaceOfThatKind()
{
    static int refusals = 0;
    setBindToDeviceForTesting([](int, const QByteArray&) {
        ++refusals;
        errno = EPERM;
        return -1;
    });
    const auto restore = qScopeGuard([] { setBindToDeviceForTesting(nullptr); });
    Peer peer;
    OSCStream::Target target{"127.0.0.1", peer.port(), OSCFraming::slip, NetworkKind::other};
    Link other;
    other.stream.connectTo(target);
    QTRY_COMPARE(other.stream.status(), kReady);
    QCOMPARE(refusals, 1);
    QTRY_VERIFY(peer.last());
    QCOMPARE(peer.last()->peerAddress(), QHostAddress(QHostAddress::LocalHost));

    // The tests run in a namespace with only loopback: there is no Wi-Fi to bind to.
    Link wifi;
    target.interfaceType = NetworkKind::wifi;
    wifi.stream.connectTo(target);
    QTRY_COMPARE(wifi.stream.status(), retrying(FailureKind::unreachable, 1));
    QCOMPARE(peer.sockets.size(), 1);
}

// A pretend sysfs tree under the interface's folder: "name/" a folder, "name->target" a link,
// "name=content" a file.
void OSCStreamTest::interfaceKindComesFromSysfs_data()
{
    QTest::addColumn<QString>("files");
    QTest::addColumn<NetworkKind>("kind");
    QTest::newRow("wireless folder") << "type=1 device/ wireless/" << NetworkKind::wifi;
    QTest::newRow("phy80211 link without a wireless folder")
        << "type=1 device/ phy80211->../ieee80211/phy0" << NetworkKind::wifi;
    QTest::newRow("ethernet with a device") << "type=1 device/" << NetworkKind::wired;
    QTest::newRow("ethernet without a device (veth, bridge)") << "type=1" << NetworkKind::other;
    QTest::newRow("device but not ethernet (tunnel)") << "type=65534 device/" << NetworkKind::other;
    QTest::newRow("no type file") << "device/" << NetworkKind::other;
}

void OSCStreamTest::interfaceKindComesFromSysfs()
{
    QFETCH(QString, files);
    QFETCH(NetworkKind, kind);
    QTemporaryDir root;
    QDir folder(root.path());
    QVERIFY(folder.mkpath("ieee80211/phy0") && folder.mkpath("if0") && folder.cd("if0"));
    for (const QString& entry : files.split(u' ')) {
        const QString name = entry.section("->", 0, 0).section(u'=', 0, 0);
        QFile file(folder.filePath(name));
        if (entry.endsWith(u'/'))
            QVERIFY(folder.mkpath(entry));
        else if (entry.contains("->"))
            QVERIFY(QFile::link(entry.section("->", 1), file.fileName()));
        else
            QVERIFY(file.open(QIODevice::WriteOnly) &&
                    file.write(entry.section(u'=', 1).toLatin1() + '\n') > 0);
    }
    QCOMPARE(networkKindOfInterface("if0", root.path()), kind);
    QCOMPARE(networkKindOfInterface("missing0", root.path()), NetworkKind::other);
}

QTEST_GUILESS_MAIN(OSCStreamTest)
#include "OSCStreamTest.moc"
