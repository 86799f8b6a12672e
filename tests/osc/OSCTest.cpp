// OSC: messages and their framing on the wire, the outgoing TCP link and the UDP listener,
// against real peers on loopback (oscsend, oscdump, osc-monitor) on a manual clock.
#include "osc/OSCListener.h"
#include "osc/OSCMessage.h"
#include "osc/OSCMessageText.h"
#include "osc/OSCStream.h"
#include "osc/OSCStreamDecoder.h"
#include "osc/SlipFraming.h"
#include "osc/TcpConnection.h"

#include "base/ManualClock.h"
#include "support/Golden.h"

#include <QDir>
#include <QElapsedTimer>
#include <QPointer>
#include <QProcess>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>
#include <QtEndian>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <netinet/in.h>
#include <new>
#include <sys/socket.h>
#include <unistd.h>

using namespace orvane;
using namespace std::string_literals;
using Status = OSCStream::Status;
using FailureKind = OSCStream::Failure::Kind;
using State = OSCListener::State;
Q_DECLARE_METATYPE(FailureKind)

namespace {
// The largest single request to operator new since the last reset: the decoder must never ask
// for more than the packet could hold. (The other forms of new and delete end in these two.)
std::atomic<std::size_t> largestAllocation{0};
} // namespace

void* operator new(std::size_t size)
{
    std::size_t seen = largestAllocation.load(std::memory_order_relaxed);
    while (size > seen && !largestAllocation.compare_exchange_weak(seen, size)) {
    }
    if (void* memory = std::malloc(size == 0 ? 1 : size))
        return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace {

// An OSC string: the bytes, at least one zero, padded to 4.
QByteArray str(const QByteArray& text)
{
    return text + QByteArray(4 - text.size() % 4, '\0');
}

QByteArray be32(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

QByteArray be64(quint64 value)
{
    return be32(quint32(value >> 32)) + be32(quint32(value));
}

QByteArray bytes(std::initializer_list<int> values)
{
    QByteArray out;
    for (int value : values)
        out.append(char(value));
    return out;
}

// A bundle with one size-prefixed element per entry.
QByteArray bundle(std::initializer_list<QByteArray> elements)
{
    QByteArray bytes = str("#bundle") + be64(1);
    for (const QByteArray& element : elements)
        bytes += be32(quint32(element.size())) + element;
    return bytes;
}

// Decoded messages as osc-monitor prints them, one per line.
QString text(const std::vector<OSCMessage>& messages)
{
    QStringList lines;
    for (const OSCMessage& message : messages)
        lines.append(QString::fromStdString(oscMessageText(message)));
    return lines.join(u'\n');
}

// Feeds `wire` in pieces of `chunk` bytes and collects what comes out.
template <class Decoder>
QByteArrayList decodeInPieces(Decoder& decoder, const QByteArray& wire, qsizetype chunk)
{
    QByteArrayList got;
    for (qsizetype at = 0; at < wire.size(); at += chunk)
        got += decoder.decode(wire.mid(at, chunk));
    return got;
}

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

const QString kInUse =
    QStringLiteral("Port %1 is in use by another app. Choose a different port or quit that app.");
const QString kChoosePort = QStringLiteral("Choose a port between 1 and 65535.");

State listening(quint16 port)
{
    return {State::Kind::listening, port, {}};
}

// A UDP port nobody holds right now.
quint16 freePort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress::Any, 0, QAbstractSocket::DontShareAddress);
    return probe.localPort();
}

// Senders on distinct loopback hosts, named A, B and C (IPv6). A lower-case name sends an
// empty datagram from the same socket as its upper-case one.
struct Senders {
    QUdpSocket sockets[3];
    int sent = 0;

    bool bind()
    {
        return sockets[0].bind(QHostAddress("127.0.0.1"), 0) &&
               sockets[1].bind(QHostAddress("127.0.0.2"), 0) &&
               sockets[2].bind(QHostAddress::LocalHostIPv6, 0);
    }
    QUdpSocket& socket(char name) { return sockets[QChar::toUpper(name) - 'A']; }
    // What the listener calls the sender, and where an answer goes.
    QString host(char name) { return socket(name).localAddress().toString(); }
    QString hostAndPort(char name)
    {
        return host(name) + u' ' + QString::number(socket(name).localPort());
    }
    // Sends the datagram that `name` stands for; returns the bytes sent.
    QByteArray send(char name, quint16 port)
    {
        const QByteArray data = QChar::isLower(name) ? QByteArray()
                                                     : "/from/" + QByteArray(1, name) + '/' +
                                                           QByteArray::number(++sent);
        const bool six = socket(name).localAddress().protocol() == QAbstractSocket::IPv6Protocol;
        socket(name).writeDatagram(
            data, QHostAddress(six ? QHostAddress::LocalHostIPv6 : QHostAddress::LocalHost), port);
        return data;
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

class OSCTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    // Lone messages and bundles, with what they decode to ("" when the packet is refused).
    void decodes_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("expected");
        const QByteArray a = str("/a");
        QTest::newRow("no type-tag string") << a << "/a ,";
        QTest::newRow("empty type-tag string") << a + QByteArray(4, '\0') << "";
        QTest::newRow("tags without comma") << a + str("i") + be32(1) << "";
        QTest::newRow("address without slash") << str("eos/out") + str(",") << "";
        QTest::newRow("address without zero") << QByteArray("/abc") << "";
        QTest::newRow("padding bytes are not checked")
            << QByteArray("/a\0x,i\0y", 8) + be32(7) << "/a ,i 7";
        QTest::newRow("int with 3 bytes left") << a + str(",i") + QByteArray(3, '\1') << "";
        QTest::newRow("string of 4 bytes then int")
            << a + str(",si") + str("abcd") + be32(9) << R"(/a ,si "abcd" 9)";
        QTest::newRow("invalid utf-8 is kept, replaced")
            << a + str(",s") + str("a\xFF") << QString::fromUtf8("/a ,s \"a\xEF\xBF\xBD\"");
        QTest::newRow("string runs off the end") << a + str(",s") + QByteArray("abc") << "";
        QTest::newRow("blob without its padding at the end")
            << a + str(",b") + be32(2) + QByteArray("xy") << "/a ,b 7879";
        QTest::newRow("blob longer than the data")
            << a + str(",b") + be32(9) + QByteArray(8, 'x') << "";
        QTest::newRow("blob length near 4 GiB")
            << a + str(",b") + be32(0xFFFFFFFF) + QByteArray(8, 'x') << "";
        QTest::newRow("a time tag keeps its low half")
            << a + str(",t") + be64(0xDEADBEEF00000007ull) << "/a ,i 7";
        QTest::newRow("unknown tag after good ones") << a + str(",ir") + be32(1) + be32(2) << "";
        QTest::newRow("bytes after the last argument are ignored")
            << a + str(",i") + be32(1) + QByteArray("junk") << "/a ,i 1";
        QTest::newRow("floats print shortest")
            << encodeOSC({"/a", {0.1f, 3.0f, -0.0f, 1e-45f, 3.4028235e38f, std::nanf("")}})
            << "/a ,ffffff 0.1 3.0 -0.0 1e-45 3.4028235e+38 nan";
        QTest::newRow("strings print as JSON")
            << encodeOSC({"/a", {"q\" b\\ t\t n\n c\x01 d\x7f \xC3\xA9"s}})
            << "/a ,s \"q\\\" b\\\\ t\\t n\\n c\\u0001 d\x7f \xC3\xA9\"";

        const QByteArray first = encodeOSC({"/first", {1}});
        const QByteArray second = encodeOSC({"/second", {"two"s}});
        const auto nested = [](int count, QByteArray bytes) {
            while (count-- > 0)
                bytes = bundle({bytes});
            return bytes;
        };
        QTest::newRow("bundle: nested bundles flatten in order")
            << bundle({first, bundle({second, bundle({first})}), second})
            << "/first ,i 1\n/second ,s \"two\"\n/first ,i 1\n/second ,s \"two\"";
        QTest::newRow("bundle: size 0 ends it")
            << bundle({first, QByteArray(), second}) << "/first ,i 1";
        QTest::newRow("bundle: a bad element is skipped")
            << bundle({str("nope") + str(","), second}) << "/second ,s \"two\"";
        QTest::newRow("bundle: an element past the end keeps what came before")
            << bundle({first}) + be32(100) + second << "/first ,i 1";
        QTest::newRow("bundle: trailing bytes too short for a size")
            << bundle({first}) + QByteArray(3, '\x7F') << "/first ,i 1";
        QTest::newRow("bundle: element sizes need not be multiples of 4")
            << bundle({str("/x") + QByteArray(","), second}) << "/second ,s \"two\"";
        QTest::newRow("bundle: 8 levels are read") << nested(8, first) << "/first ,i 1";
        QTest::newRow("bundle: 9 levels are not") << nested(9, first) << "";
        QTest::newRow("bundle of 19 bytes") << str("#bundle") + be64(0) + QByteArray(3, '\0') << "";
        QTest::newRow("bundle header without its zero is a bad message")
            << QByteArray("#bundlex") + be64(0) + be32(first.size()) + first << "";
    }

    void decodes()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, expected);
        QCOMPARE(text(decodeOSCPacket(bytes)), expected);
        const std::optional<OSCMessage> message = decodeOSCMessage(bytes);
        if (!bytes.startsWith("#bundle"))
            QCOMPARE(text(message ? std::vector{*message} : std::vector<OSCMessage>{}), expected);
    }

    // A 4 MiB frame is allowed on a stream; what it claims to hold must not be allocated before
    // the claim is checked.
    void rejectsWithoutAllocatingMoreThanIsThere_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QByteArray tags = str("/a") + "," + QByteArray(4 * 1024 * 1024 - 16, 'i');
        QTest::newRow("4 MiB of ints without payload") << str(tags);
        QTest::newRow("4 MiB of strings without payload")
            << str(QByteArray(tags).replace('i', 's'));
        QTest::newRow("4 MiB of trues and an unknown tag")
            << str(QByteArray(tags).replace('i', 'T') + "x");
        QTest::newRow("a blob that claims 1 GiB")
            << str("/a") + str(",b") + be32(1u << 30) + be32(0);
    }

    void rejectsWithoutAllocatingMoreThanIsThere()
    {
        QFETCH(QByteArray, bytes);
        largestAllocation = 0;
        const bool decoded = decodeOSCMessage(bytes).has_value();
        const std::size_t largest = largestAllocation;
        QVERIFY(!decoded);
        QVERIFY2(largest <= std::size_t(bytes.size()), qPrintable(QString::number(largest)));
    }

    void writesWhatOscdumpReads()
    {
        const quint16 port = freePort();
        QProcess dump;
        dump.start("oscdump", {"-L", QString::number(port)});
        QVERIFY(dump.waitForStarted());
        auto stop = qScopeGuard([&] {
            dump.kill();
            dump.waitForFinished();
        });
        // oscdump gives no sign that it listens: send the first message until it shows.
        QUdpSocket sender;
        QStringList lines;
        for (int attempt = 0; attempt < 100 && lines.isEmpty(); ++attempt) {
            sender.writeDatagram(encodeOSC({"/eos/ping", {}}), QHostAddress::LocalHost, port);
            dump.waitForReadyRead(100);
            while (dump.canReadLine())
                lines.append(QString::fromUtf8(dump.readLine()).trimmed());
        }
        QVERIFY(!lines.isEmpty());
        // Eleven arguments fill the tag string's last word, so it needs a word of zeros after it; a
        // string of 4 bytes does too; blobs are padded, and an empty one is its length alone.
        const OSCMessage all{"/all",
                             {-7, 2.5f, "abcd"s, QByteArray("\x01\xAB", 2), QByteArray(), ""s, true,
                              false, OSCNull{}, 9, 0.1f}};
        sender.writeDatagram(encodeOSC(all), QHostAddress::LocalHost, port);
        while (!lines.last().contains("/all")) { // pings still in flight come first
            while (!dump.canReadLine())
                QVERIFY(dump.waitForReadyRead(5000));
            lines.append(QString::fromUtf8(dump.readLine()).trimmed());
        }
        QCOMPARE(lines.first().section(' ', 1), "/eos/ping"); // after oscdump's time stamp
        QCOMPARE(
            lines.last().section(' ', 1),
            R"(/all ifsbbsTFNif -7 2.500000 "abcd" [2b 0x1 0xab] [0b ] "" #T #F Nil 9 0.100000)");
    }

    // Every row whole and cut into pieces, because TCP splits anywhere.
    void decodesFrames_data()
    {
        QTest::addColumn<OSCFraming>("framing");
        QTest::addColumn<QByteArray>("wire");
        QTest::addColumn<QByteArrayList>("packets");
        const auto slip = [](const char* name) -> QTestData& {
            return QTest::newRow(name) << OSCFraming::slip;
        };
        slip("only ends") << bytes({0xC0, 0xC0, 0xC0}) << QByteArrayList{};
        slip("escaped end and escape") << bytes({0xC0, 0x01, 0xDB, 0xDC, 0xDB, 0xDD, 0xC0})
                                       << QByteArrayList{bytes({0x01, 0xC0, 0xDB})};
        slip("invalid escape keeps the byte")
            << bytes({0xC0, 0xDB, 0x41, 0xC0}) << QByteArrayList{QByteArray("A")};
        slip("escape before end takes the end as data")
            << bytes({0x41, 0xDB, 0xC0, 0x42, 0xC0}) << QByteArrayList{bytes({0x41, 0xC0, 0x42})};
        slip("single-end framing, unfinished frame yields nothing")
            << QByteArray("one\xC0two\xC0half") << QByteArrayList{"one", "two"};
        slip("leading garbage becomes its own packet")
            << (QByteArray("junk") + encodeSLIP("ok")) << QByteArrayList{"junk", "ok"};
        const auto length = [](const char* name) -> QTestData& {
            return QTest::newRow(name) << OSCFraming::lengthPrefixed;
        };
        length("prefix is big-endian")
            << (bytes({0, 0, 1, 2}) + QByteArray(258, 'x')) << QByteArrayList{QByteArray(258, 'x')};
        length("zero length is skipped")
            << (bytes({0, 0, 0, 0}) + encodeLengthPrefixed("valid")) << QByteArrayList{"valid"};
        length("short prefix") << bytes({0, 0, 0}) << QByteArrayList{};
        length("half a frame") << encodeLengthPrefixed("abcdef").chopped(1) << QByteArrayList{};
        length("largest allowed prefix waits for its bytes")
            << bytes({0x00, 0x40, 0x00, 0x00, 'x'}) << QByteArrayList{};
    }

    void decodesFrames()
    {
        QFETCH(OSCFraming, framing);
        QFETCH(QByteArray, wire);
        QFETCH(QByteArrayList, packets);
        for (qsizetype chunk : {1, 2, 3, 5, 7, int(wire.size())}) {
            OSCStreamDecoder decoder(framing);
            QCOMPARE(decodeInPieces(decoder, wire, chunk), packets);
            QVERIFY(!decoder.isOutOfStep());
        }
    }

    void slipDropsRunawayFrameAtTheEndOfTheChunkThatExceeds()
    {
        // Every frame is written with an END before and after it.
        QCOMPARE(frameOSCPacket(OSCFraming::slip, bytes({0xC0, 0x01, 0xDB, 0xDC})),
                 bytes({0xC0, 0xDB, 0xDC, 0x01, 0xDB, 0xDD, 0xDC, 0xC0}));
        SLIPDecoder decoder;
        const QByteArray limit(SLIPDecoder::kMaxPacketBytes, 'x');
        // Exactly the limit is kept: the frame may still end.
        QCOMPARE(decoder.decode(limit), QByteArrayList{});
        QCOMPARE(decoder.bufferedBytes(), SLIPDecoder::kMaxPacketBytes);
        // One more byte and an escape pending: the frame and the escape are dropped together, so
        // the next byte is not taken as an escaped one.
        QCOMPARE(decoder.decode(bytes({'y', 0xDB})), QByteArrayList{});
        QCOMPARE(decoder.bufferedBytes(), 0);
        QCOMPARE(decoder.decode(bytes({0xDC, 'z', 0xC0})), QByteArrayList{bytes({0xDC, 'z'})});
    }

    void impossibleLengthIsOutOfStepAtOnce()
    {
        OSCStreamDecoder decoder(OSCFraming::lengthPrefixed);
        // A good packet in the same chunk still comes out; the bytes after the bad prefix go.
        const QByteArray wire = encodeLengthPrefixed("good") + bytes({0x00, 0x40, 0x00, 0x01}) +
                                encodeLengthPrefixed("lost");
        QCOMPARE(decoder.decode(wire), QByteArrayList{"good"});
        QVERIFY(decoder.isOutOfStep());
        // The buffer was emptied: a fresh frame decodes by itself, and the verdict stays.
        QCOMPARE(decoder.decode(encodeLengthPrefixed("next")), QByteArrayList{"next"});
        QVERIFY(decoder.isOutOfStep());
    }

    void textWithoutFramesIsOutOfStepPastTheLimit_data()
    {
        QTest::addColumn<OSCFraming>("framing");
        QTest::addColumn<qsizetype>("length");
        for (OSCFraming framing : {OSCFraming::slip, OSCFraming::lengthPrefixed}) {
            const QByteArray name = rawValue(framing).toLatin1();
            QTest::newRow(name + ", 262,144 bytes") << framing << qsizetype(262'144);
            QTest::newRow(name + ", 262,145 bytes") << framing << qsizetype(262'145);
        }
    }

    void textWithoutFramesIsOutOfStepPastTheLimit()
    {
        QFETCH(OSCFraming, framing);
        QFETCH(qsizetype, length);
        // For SLIP, text without END bytes; for length prefixes, a first prefix asking for 4 MiB
        // followed by text, so no frame can complete before the limit.
        QByteArray wire(length, 'a');
        if (framing == OSCFraming::lengthPrefixed)
            wire.replace(0, 4, bytes({0x00, 0x40, 0x00, 0x00}));
        for (qsizetype chunk : {qsizetype(65'536), qsizetype(1000), length}) {
            OSCStreamDecoder decoder(framing);
            // A packet before the text resets the count.
            const QByteArray frame = frameOSCPacket(framing, QByteArray(200'000, 'p'));
            decoder.decode(frame.chopped(1));
            QCOMPARE(decoder.decode(frame.right(1)).size(), 1);
            decodeInPieces(decoder, wire, chunk);
            QCOMPARE(decoder.isOutOfStep(), length > 262'144);
        }
    }

    // A refused port retries after 1, 2, 3, 5, 8, then every 10 s; once ready the schedule starts
    // over. The same target while ready does nothing; disconnecting leaves nothing pending.
    void retriesOnTheBackOffScheduleUntilReady()
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
    void packetsArriveInOrderAndSendsAreFramed_data()
    {
        QTest::addColumn<OSCFraming>("framing");
        QTest::addColumn<QString>("host");
        QTest::addColumn<QHostAddress>("listening");
        QTest::newRow("lengthPrefixed, IPv6")
            << OSCFraming::lengthPrefixed << "::1" << QHostAddress(QHostAddress::LocalHostIPv6);
        // Should the resolver name ::1 first, the IPv4 address is tried next.
        QTest::newRow("slip, a name")
            << OSCFraming::slip << "localhost" << QHostAddress(QHostAddress::LocalHost);
    }

    void packetsArriveInOrderAndSendsAreFramed()
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

    void badPeersNeverCrashTheLinkAndItKeepsRetrying_data()
    {
        QTest::addColumn<OSCFraming>("framing");
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<bool>("reset");
        QTest::addColumn<FailureKind>("failure");
        const QByteArray frame = encodeSLIP(encodeOSC({"/eos/out/show/name", {std::string("x")}}));
        QTest::newRow("half a slip frame, then close")
            << OSCFraming::slip << frame.left(frame.size() / 2) << false
            << FailureKind::closedByPeer;
        QTest::newRow("half a length-prefixed frame, then reset")
            << OSCFraming::lengthPrefixed << encodeLengthPrefixed(QByteArray(100, 'x')).left(50)
            << true << FailureKind::closedByPeer;
        QTest::newRow("plain text on a length-prefixed link")
            << OSCFraming::lengthPrefixed << QByteArray("HTTP/1.1 400 Bad Request\r\n\r\n") << false
            << FailureKind::wrongProtocol;
    }

    void badPeersNeverCrashTheLinkAndItKeepsRetrying()
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
                QTest::qWait(20); // the bytes arrive first, so the close comes mid-frame
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

    void quietPeerFailsAtTheFirstTickPastTheSilenceTimeout()
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
    void lastMessageReachesThePeerThroughADisconnect()
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

    void peerThatNeverAnswersTimesOutAfterFourSeconds()
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
    // CAP_NET_RAW the kernel refuses SO_BINDTODEVICE; the link then binds to the interface's
    // address instead of failing.
    void interfaceRestrictionUsesAnInterfaceOfThatKind()
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
    void interfaceKindComesFromSysfs_data()
    {
        QTest::addColumn<QString>("files");
        QTest::addColumn<NetworkKind>("kind");
        QTest::newRow("wireless folder") << "type=1 device/ wireless/" << NetworkKind::wifi;
        QTest::newRow("phy80211 link without a wireless folder")
            << "type=1 device/ phy80211->../ieee80211/phy0" << NetworkKind::wifi;
        QTest::newRow("ethernet with a device") << "type=1 device/" << NetworkKind::wired;
        QTest::newRow("ethernet without a device (veth, bridge)") << "type=1" << NetworkKind::other;
        QTest::newRow("device but not ethernet (tunnel)")
            << "type=65534 device/" << NetworkKind::other;
        QTest::newRow("no type file") << "device/" << NetworkKind::other;
    }

    void interfaceKindComesFromSysfs()
    {
        QFETCH(QString, files);
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
        QTEST(networkKindOfInterface("if0", root.path()), "kind");
        QCOMPARE(networkKindOfInterface("missing0", root.path()), NetworkKind::other);
    }

    void listensAndStops()
    {
        ManualClock clock;
        OSCListener listener(clock);
        QCOMPARE(listener.stateText(), "Off");
        const quint16 port = freePort();
        listener.configure(true, port);
        QCOMPARE(listener.state(), listening(port));
        QCOMPARE(listener.stateText(), QStringLiteral("Listening on port %1").arg(port));

        // Bound without address reuse: another app that asks for reuse cannot share the port
        // silently. A new port frees the old one, and off frees the port.
        QUdpSocket other;
        QVERIFY(!other.bind(QHostAddress::AnyIPv4, port, QAbstractSocket::ShareAddress));
        const quint16 nextPort = freePort();
        listener.configure(true, nextPort);
        QCOMPARE(listener.state(), listening(nextPort));
        QVERIFY(other.bind(QHostAddress::AnyIPv4, port));
        listener.configure(false, nextPort);
        QCOMPARE(listener.state(), State{});
        QCOMPARE(listener.stateText(), "Off");
        QVERIFY(QUdpSocket().bind(QHostAddress::Any, nextPort));
        listener.configure(true, nextPort);
        QCOMPARE(listener.state(), listening(nextPort));

        // A port outside the range fails at once and is not retried.
        for (const int bad : {0, 70000}) {
            QSignalSpy changes(&listener, &OSCListener::stateChanged);
            listener.configure(true, bad);
            QCOMPARE(listener.state(), (State{State::Kind::failed, std::nullopt, kChoosePort}));
            QCOMPARE(changes.size(), 1);
            QCOMPARE(clock.pendingCount(), 0u);
            listener.configure(true, nextPort);
        }
    }

    void followsAndForgetsSenders_data()
    {
        // Steps: a sender's name sends a datagram; a number moves the clock by that many seconds.
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QByteArray>("senderChanges"); // lastSender after each change
        QTest::addColumn<QByteArray>("remaining");     // senders still known at the end
        const auto row = [](const char* name, const char* steps, const char* changes,
                            const char* remaining) {
            QTest::newRow(name) << steps << QByteArray(changes) << QByteArray(remaining);
        };
        row("repeats between changes", "A A B B B A", "ABA", "AB");
        row("empty datagram changes nothing", "A b A", "A", "A");
        row("IPv6 and IPv4 senders", "C A C", "CAC", "AC");
        row("silent 60 s is kept", "A 60 B", "AB", "AB");
        row("silent 61 s is dropped", "A 61 B", "AB", "B");
        row("speaking again restarts the silence", "A B 50 A 50 C", "ABAC", "AC");
        row("a known sender prunes nothing", "A B 100 A", "ABA", "AB");
        row("empty datagrams do not keep a sender", "A B 50 a 20 C", "ABC", "C");
        row("pruned sender comes back", "A 61 B A", "ABA", "AB");
    }

    void followsAndForgetsSenders()
    {
        QFETCH(QString, steps);
        QFETCH(QByteArray, senderChanges);
        QFETCH(QByteArray, remaining);
        ManualClock clock;
        OSCListener listener(clock);
        QStringList heard; // "datagram host port"
        listener.setOnPacket([&](const QByteArray& datagram, const OSCListener::Sender& sender) {
            QVERIFY(sender.address.isEqual(QHostAddress(sender.host)));
            heard << QString::fromLatin1(datagram) + u' ' + sender.host + u' ' +
                         QString::number(sender.port);
        });
        QStringList changes;
        connect(&listener, &OSCListener::lastSenderChanged, this,
                [&] { changes << listener.lastSender().value_or("none"); });
        const quint16 port = freePort();
        listener.configure(true, port);
        QCOMPARE(listener.lastSender(), std::nullopt);
        Senders senders;
        QVERIFY(senders.bind());

        QStringList sent;
        for (const QString& step : steps.split(u' ')) {
            const char name = step.at(0).toLatin1();
            if (QChar::isDigit(name)) {
                clock.advance(step.toDouble());
            } else if (const QByteArray data = senders.send(name, port); data.isEmpty()) {
                QTest::qWait(50); // never passed on: nothing to wait for but time
            } else {
                sent << QString::fromLatin1(data) + u' ' + senders.hostAndPort(name);
                QTRY_COMPARE(heard.size(), sent.size()); // handled before the clock moves on
            }
        }
        QCOMPARE(heard, sent);
        QStringList expected;
        for (const char name : senderChanges)
            expected << senders.host(name);
        QCOMPARE(changes, expected);
        QCOMPARE(listener.lastSender(), std::optional(expected.last()));

        // The same port again keeps the socket: a restart would forget the senders.
        QSignalSpy stateChanges(&listener, &OSCListener::stateChanged);
        listener.configure(true, port);
        QCOMPARE(stateChanges.size(), 0);
        expected.clear();
        for (const char name : remaining)
            expected << senders.hostAndPort(name);
        expected.sort();
        QCOMPARE(listener.sendersForTesting(), expected);
    }

    void ownerMayReconfigureWhileHandlingAPacket()
    {
        ManualClock clock;
        OSCListener listener(clock);
        const quint16 port = freePort();
        quint16 nextPort = freePort();
        while (nextPort == port)
            nextPort = freePort();
        QList<QByteArray> heard;
        listener.setOnPacket([&](const QByteArray& datagram, const OSCListener::Sender&) {
            heard << datagram;
            listener.configure(true, nextPort);
        });
        listener.configure(true, port);
        Senders senders;
        QVERIFY(senders.bind());
        // Both wait in the socket before the first is read; the second dies with the old socket.
        const QByteArray first = senders.send('A', port);
        senders.send('B', port);
        QTRY_COMPARE(heard, QList<QByteArray>{first});
        QCOMPARE(listener.state(), listening(nextPort));
        QTest::qWait(50);
        QCOMPARE(heard.size(), 1);
        const QByteArray third = senders.send('C', nextPort);
        QTRY_COMPARE(heard, (QList<QByteArray>{first, third}));
    }

    // osc-monitor holds the port first and prints every message it hears; the listener finds the
    // port taken and retries every 5 s, and takes it once the other process has gone. Then another
    // osc-monitor finds it taken.
    void takesTurnsOnAPortWithOscMonitor()
    {
        const quint16 port = freePort();
        QProcess monitor;
        QByteArray errors;
        const auto startMonitor = [&] {
            errors.clear();
            monitor.start(qEnvironmentVariable("ORVANE_EXECUTABLE"),
                          {"osc-monitor", "--port", QString::number(port)});
            monitor.waitForStarted();
            (void)QTest::qWaitFor(
                [&] { return (errors += monitor.readAllStandardError()).contains('\n'); }, 10000);
            return errors;
        };
        const auto stopMonitor = qScopeGuard([&] {
            monitor.kill();
            monitor.waitForFinished();
        });
        QCOMPARE(startMonitor(), "Listening on port " + QByteArray::number(port) + '\n');

        // What liblo sends, one message per run of oscsend, in order; a char argument is not read.
        const QList<QStringList> sends = {
            {"/eos/out/active/cue/text", "s", "1/14 Intro 5.0 40%"},
            {"/eos/out/active/cue/text", "s", "Cue \"5\" \\ back\ttab"},
            {"/numbers", "ifdd", "-42", "0.1", "2.5", "-1e300"},
            {"/flags", "TFNI"},
            {"/wide", "hh", "4294967301", "-3"},
            {"/empty"},
            {"/symbol", "S", "sym"},
            {"/small", "f", "-0.000001"},
            {"/utf8", "s", "Fade → 40 %"},
            {"/char", "c", "x"},
        };
        for (const QStringList& arguments : sends)
            QCOMPARE(QProcess::execute("oscsend",
                                       QStringList{"127.0.0.1", QString::number(port)} + arguments),
                     0);
        // What no oscsend writes: a blob, a bundle, and things that are not OSC at all.
        QUdpSocket sender;
        const QByteArray inner = encodeOSC({"/in/bundle", {QByteArray("\x00\xff\x10", 3), 1.0f}});
        for (const QByteArray& datagram :
             {bundle({encodeOSC({"/bundle/first", {std::string("a")}}), bundle({inner})}),
              QByteArray(), QByteArray("hello"), encodeOSC({"/last", {}})})
            sender.writeDatagram(datagram, QHostAddress::LocalHost, port);
        QByteArray output;
        QTRY_VERIFY_WITH_TIMEOUT((output += monitor.readAllStandardOutput()).contains("/last"),
                                 10000);
        const auto golden = orvane::testing::compareWithGolden(
            output, QStringLiteral(ORVANE_TEST_DATA "/expected/osc-monitor.txt"));
        QVERIFY2(golden.matches, qPrintable(golden.difference));
        QTRY_VERIFY((errors += monitor.readAllStandardError()).contains("Ignored 5 bytes"));
        QCOMPARE(errors, "Listening on port " + QByteArray::number(port) +
                             "\nIgnored 16 bytes from 127.0.0.1 that are not OSC."
                             "\nIgnored 5 bytes from 127.0.0.1 that are not OSC.\n");

        ManualClock clock;
        OSCListener listener(clock);
        QSignalSpy changes(&listener, &OSCListener::stateChanged);
        // Turning the listener off cancels a pending retry.
        listener.configure(true, port);
        QCOMPARE(clock.pendingCount(), 1u);
        listener.configure(false, port);
        QCOMPARE(clock.pendingCount(), 0u);
        QCOMPARE(listener.stateText(), "Off");

        // Each retry that still finds the port taken keeps the state and schedules the next one.
        changes.clear();
        listener.configure(true, port);
        const State inUse{State::Kind::failed, std::nullopt, kInUse.arg(port)};
        QCOMPARE(listener.state(), inUse);
        QCOMPARE(listener.stateText(), kInUse.arg(port));
        clock.advance(5.1);
        QCOMPARE(listener.state(), inUse);
        QCOMPARE(clock.pendingCount(), 1u);
        QCOMPARE(changes.size(), 1);

        // Configuring the same port while a retry waits does not restart at once; the retry at
        // 10 s does.
        monitor.kill();
        QVERIFY(monitor.waitForFinished());
        listener.configure(true, port);
        clock.advance(4.8);
        QCOMPARE(listener.state(), inUse);
        clock.advance(0.2);
        QCOMPARE(listener.state(), listening(port));
        QCOMPARE(clock.pendingCount(), 0u);
        QCOMPARE(changes.size(), 2);

        QCOMPARE(startMonitor(), kInUse.arg(port).toUtf8() + '\n');
    }

    // osc-monitor's arguments: each row is one way out of its argument check.
    void oscMonitorAnswersItsArguments_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QByteArray>("output"); // its start
        QTest::addColumn<QByteArray>("errors");
        QTest::newRow("help") << QStringList{"--help"} << 0
                              << QByteArray("Usage: orvane osc-monitor [options]\n")
                              << QByteArray();
        const QByteArray range = "Choose a port between 1 and 65535.\n";
        QTest::newRow("port 0") << QStringList{"--port", "0"} << 1 << QByteArray() << range;
        QTest::newRow("port 70000") << QStringList{"--port", "70000"} << 1 << QByteArray() << range;
        QTest::newRow("port not a number")
            << QStringList{"--port", "8001x"} << 2 << QByteArray()
            << QByteArray("orvane osc-monitor: the port must be a number, not '8001x'\n");
        QTest::newRow("unknown option")
            << QStringList{"--prot", "8001"} << 2 << QByteArray()
            << QByteArray("orvane osc-monitor: Unknown option 'prot'.\n");
        QTest::newRow("stray argument")
            << QStringList{"8001"} << 2 << QByteArray()
            << QByteArray("orvane osc-monitor: unexpected argument '8001'\n");
    }

    void oscMonitorAnswersItsArguments()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, output);
        QProcess monitor;
        monitor.start(qEnvironmentVariable("ORVANE_EXECUTABLE"),
                      QStringList{"osc-monitor"} + arguments);
        QVERIFY(monitor.waitForFinished(10000));
        QCOMPARE(monitor.exitStatus(), QProcess::NormalExit);
        QTEST(monitor.exitCode(), "exitCode");
        QVERIFY2(monitor.readAllStandardOutput().startsWith(output), output.constData());
        QTEST(monitor.readAllStandardError(), "errors");
    }
};

QTEST_GUILESS_MAIN(OSCTest)
#include "OSCTest.moc"
