#include "osc/OSCStream.h"

#include "base/ManualClock.h"
#include "osc/OSCStreamDecoder.h"
#include "osc/TcpConnection.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QScopeGuard>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace orvane;

using Status = OSCStream::Status;
using Failure = OSCStream::Failure;
using FailureKind = OSCStream::Failure::Kind;

Q_DECLARE_METATYPE(FailureKind)

namespace {

constexpr int kWaitMs = 3000;

Status retrying(FailureKind kind, int attempt)
{
    return {Status::Kind::retrying, {kind, {}}, attempt};
}
const Status kConnecting{Status::Kind::connecting, {}, 0};
const Status kReady{Status::Kind::ready, {}, 0};

// A port on loopback that nobody listens on.
quint16 closedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort();
}

// Closes a peer's socket with a reset instead of a FIN.
void resetConnection(QTcpSocket* socket)
{
    const linger lingerOff{1, 0};
    ::setsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &lingerOff,
                 sizeof lingerOff);
    socket->abort();
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
    quint16 port() const { return server.serverPort(); }
    OSCStream::Target target(OSCFraming framing = OSCFraming::slip) const
    {
        return {QStringLiteral("127.0.0.1"), int(port()), framing, std::nullopt};
    }
    QTcpSocket* last() const { return sockets.isEmpty() ? nullptr : sockets.last().data(); }
};

} // namespace

namespace QTest {
template <> char* toString(const Status& status)
{
    return qstrdup(QStringLiteral("%1(%2, %3)")
                       .arg(int(status.kind))
                       .arg(int(status.failure.kind))
                       .arg(status.attempt)
                       .toLatin1()
                       .constData());
}
} // namespace QTest

class OSCStreamTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void refusedPortRetriesOnTheBackOffSchedule();
    void packetsArriveInOrderAndSendsAreFramed_data();
    void packetsArriveInOrderAndSendsAreFramed();
    void readyStartsTheScheduleOverAndDisconnectGoesIdle();
    void badPeersNeverCrashTheLinkAndItKeepsRetrying_data();
    void badPeersNeverCrashTheLinkAndItKeepsRetrying();
    void quietPeerFailsAtTheFirstTickPastTheSilenceTimeout();
    void lastMessageReachesThePeerThroughADisconnect();
    void peerThatNeverAnswersTimesOutAfterFourSeconds();
    void hostIsANameOrAnAddressOfEitherFamily_data();
    void hostIsANameOrAnAddressOfEitherFamily();
    void interfaceRestrictionUsesAnInterfaceOfThatKind();
};

void OSCStreamTest::refusedPortRetriesOnTheBackOffSchedule()
{
    Link link;
    link.stream.connectTo({QStringLiteral("127.0.0.1"), closedPort(), OSCFraming::slip, {}});
    QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), retrying(FailureKind::refused, 1), kWaitMs);
    const QList<double> delays{1, 2, 3, 5, 8, 10, 10};
    for (int failures = 1; failures <= delays.size(); ++failures) {
        const double delay = delays[failures - 1];
        link.clock.advance(delay - 0.01);
        QCOMPARE(link.stream.status(), retrying(FailureKind::refused, failures));
        link.clock.advance(0.01);
        QCOMPARE_NE(link.stream.status(), retrying(FailureKind::refused, failures));
        QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(),
                                  retrying(FailureKind::refused, failures + 1), kWaitMs);
    }
    // Every attempt went through connecting.
    QCOMPARE(link.statuses.count(kConnecting), delays.size() + 1);
    QCOMPARE(link.readyCount, 0);

    // A port outside 1...65535 fails at once, on the same schedule, without connecting.
    for (const int port : {0, 65536}) {
        Link invalid;
        invalid.stream.connectTo({QStringLiteral("127.0.0.1"), port, OSCFraming::slip, {}});
        invalid.clock.advance(1.0);
        QCOMPARE(invalid.statuses, (QList<Status>{retrying(FailureKind::invalidPort, 1),
                                                  retrying(FailureKind::invalidPort, 2)}));
    }
}

void OSCStreamTest::packetsArriveInOrderAndSendsAreFramed_data()
{
    QTest::addColumn<OSCFraming>("framing");
    QTest::newRow("slip") << OSCFraming::slip;
    QTest::newRow("lengthPrefixed") << OSCFraming::lengthPrefixed;
}

void OSCStreamTest::packetsArriveInOrderAndSendsAreFramed()
{
    QFETCH(OSCFraming, framing);
    Peer peer;
    Link link;
    link.stream.connectTo(peer.target(framing));
    QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), kReady, kWaitMs);
    QCOMPARE(link.readyCount, 1);
    QTRY_VERIFY_WITH_TIMEOUT(peer.last(), kWaitMs);

    QByteArrayList sent;
    QByteArray wire;
    for (int i = 0; i < 50; ++i) {
        const QByteArray packet =
            encodeOSC({"/eos/out/active/cue/text", {std::string(i * 37, 'c'), i}});
        sent.append(packet);
        wire += frameOSCPacket(framing, packet);
    }
    // In uneven pieces, flushed one by one, so reads end mid-frame.
    for (qsizetype at = 0, piece = 1; at < wire.size(); at += piece, piece = piece * 3 % 1021) {
        peer.last()->write(wire.mid(at, piece));
        peer.last()->flush();
    }
    QTRY_COMPARE_WITH_TIMEOUT(link.packets.size(), sent.size(), kWaitMs);
    QCOMPARE(link.packets, sent);

    const OSCMessage message{"/eos/ping", {std::string("orvane"), 1.5f}};
    link.stream.send(message);
    link.stream.send(message);
    OSCStreamDecoder decoder(framing);
    QByteArrayList received;
    QTRY_VERIFY_WITH_TIMEOUT(
        (received += decoder.decode(peer.last()->readAll()), received.size() == 2), kWaitMs);
    QCOMPARE(received, (QByteArrayList{encodeOSC(message), encodeOSC(message)}));
    QCOMPARE(link.stream.status(), kReady);
}

void OSCStreamTest::readyStartsTheScheduleOverAndDisconnectGoesIdle()
{
    const quint16 port = closedPort();
    Link link;
    link.stream.connectTo({QStringLiteral("127.0.0.1"), port, OSCFraming::slip, {}});
    QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), retrying(FailureKind::refused, 1), kWaitMs);
    link.clock.advance(1.0);
    QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), retrying(FailureKind::refused, 2), kWaitMs);

    // Retry now skips the wait of 2 s.
    Peer peer(port);
    QCOMPARE(peer.port(), port);
    link.stream.retryNow();
    QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), kReady, kWaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(peer.last(), kWaitMs);
    peer.last()->close();
    QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), retrying(FailureKind::closedByPeer, 1),
                              kWaitMs);
    // The count started over, so the next attempt comes after 1 s, not 3 s.
    link.clock.advance(1.0);
    QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), kReady, kWaitMs);
    QCOMPARE(link.readyCount, 2);
    QTRY_COMPARE_WITH_TIMEOUT(peer.sockets.size(), 2, kWaitMs);

    // The same target while ready does nothing; another framing is another target.
    const auto statuses = link.statuses;
    link.stream.connectTo(peer.target());
    QCOMPARE(link.statuses, statuses);
    link.stream.connectTo(peer.target(OSCFraming::lengthPrefixed));
    QTRY_COMPARE_WITH_TIMEOUT(link.readyCount, 3, kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(peer.sockets.size(), 3, kWaitMs);

    link.stream.disconnect();
    QCOMPARE(link.stream.status(), Status{});
    QCOMPARE(link.stream.target(), std::nullopt);
    QTRY_COMPARE_WITH_TIMEOUT(peer.last()->state(), QAbstractSocket::UnconnectedState, kWaitMs);
    // Nothing is pending: no retry, no keep-alive.
    QCOMPARE(link.clock.pendingCount(), std::size_t(0));
    link.stream.retryNow();
    QCOMPARE(link.stream.status(), Status{});
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
    link.stream.connectTo(peer.target(framing));
    for (int attempt = 1; attempt <= 2; ++attempt) {
        QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), kReady, kWaitMs);
        QTRY_COMPARE_WITH_TIMEOUT(peer.sockets.size(), attempt, kWaitMs);
        QTcpSocket* socket = peer.last();
        socket->write(sent);
        socket->flush();
        if (failure == FailureKind::closedByPeer) {
            // Let the bytes arrive first, so the close comes mid-frame.
            QTest::qWait(20);
            if (reset)
                resetConnection(socket);
            else
                socket->disconnectFromHost();
        }
        QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), retrying(failure, 1), kWaitMs);
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
    link.stream.connectTo(peer.target());
    QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), kReady, kWaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(peer.last(), kWaitMs);

    // Ticks every 2 s; a packet at 3 s keeps the link up through the tick at 8 s, when the
    // silence is exactly 5 s.
    link.clock.advance(3.0);
    peer.last()->write(encodeSLIP(encodeOSC({"/eos/out/ping", {}})));
    QTRY_COMPARE_WITH_TIMEOUT(link.packets.size(), 1, kWaitMs);
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
    OSCStreamDecoder decoder(OSCFraming::slip);
    QByteArrayList heard;
    QTRY_VERIFY_WITH_TIMEOUT((heard += decoder.decode(peer.last()->readAll()), heard.size() == 5),
                             kWaitMs);
    QCOMPARE(heard, QByteArrayList(5, encodeOSC(ping)));
}

// Turning a link off right after a last message ("/disconnect" to QLab) must still deliver it,
// even when the peer has sent input we never read and has not read what we sent: closing such
// a socket at once resets the connection and drops the queued bytes.
void OSCStreamTest::lastMessageReachesThePeerThroughADisconnect()
{
    Peer peer;
    Link link;
    link.stream.connectTo(peer.target());
    QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), kReady, kWaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(peer.last(), kWaitMs);
    QTcpSocket* socket = peer.last();
    socket->setReadBufferSize(1); // the peer stops reading: the windows fill up

    const OSCMessage bulk{"/bulk", {QByteArray(1 << 20, 'x')}};
    for (int i = 0; i < 12; ++i)
        link.stream.send(bulk);
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
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    QCOMPARE(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    QCOMPARE(::listen(listener, 0), 0);
    socklen_t length = sizeof address;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    const quint16 port = ntohs(address.sin_port);
    QList<QTcpSocket*> fillers;
    for (int i = 0; i < 3; ++i) {
        fillers.append(new QTcpSocket(this));
        fillers.last()->connectToHost(QHostAddress::LocalHost, port);
    }
    QTest::qWait(100);

    Link link;
    link.stream.connectTo({QStringLiteral("127.0.0.1"), port, OSCFraming::slip, {}});
    QTest::qWait(100);
    QCOMPARE(link.stream.status(), kConnecting);
    link.clock.advance(3.9);
    QCOMPARE(link.stream.status(), kConnecting);
    link.clock.advance(0.1);
    QCOMPARE(link.stream.status(), retrying(FailureKind::noAnswer, 1));
    qDeleteAll(fillers);
    ::close(listener);
}

void OSCStreamTest::hostIsANameOrAnAddressOfEitherFamily_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<QHostAddress>("listening");
    const QHostAddress ipv4(QHostAddress::LocalHost);
    QTest::newRow("IPv4 address") << QStringLiteral("127.0.0.1") << ipv4;
    QTest::newRow("IPv6 address") << QStringLiteral("::1")
                                  << QHostAddress(QHostAddress::LocalHostIPv6);
    // Through the resolver; should it name ::1 first, the IPv4 address is tried next.
    QTest::newRow("name") << QStringLiteral("localhost") << ipv4;
}

void OSCStreamTest::hostIsANameOrAnAddressOfEitherFamily()
{
    QFETCH(QString, host);
    QFETCH(QHostAddress, listening);
    Peer peer(0, listening);
    QVERIFY(peer.server.isListening());
    Link link;
    link.stream.connectTo({host, peer.port(), OSCFraming::slip, {}});
    QTRY_COMPARE_WITH_TIMEOUT(link.stream.status(), kReady, kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(peer.sockets.size(), 1, kWaitMs);
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
    Link other;
    auto target = peer.target();
    target.interfaceType = NetworkKind::other;
    other.stream.connectTo(target);
    QTRY_COMPARE_WITH_TIMEOUT(other.stream.status(), kReady, kWaitMs);
    QCOMPARE(refusals, 1);
    QTRY_VERIFY_WITH_TIMEOUT(peer.last(), kWaitMs);
    QCOMPARE(peer.last()->peerAddress(), QHostAddress(QHostAddress::LocalHost));

    // The tests run in a namespace with only loopback: there is no Wi-Fi to bind to.
    Link wifi;
    target.interfaceType = NetworkKind::wifi;
    wifi.stream.connectTo(target);
    QTRY_COMPARE_WITH_TIMEOUT(wifi.stream.status(), retrying(FailureKind::unreachable, 1), kWaitMs);
    QCOMPARE(peer.sockets.size(), 1);
}

QTEST_GUILESS_MAIN(OSCStreamTest)
#include "OSCStreamTest.moc"
