// OSC on the wire: packets to messages and back, SLIP and length-prefixed framing on a stream.
#include "osc/OSCMessage.h"
#include "osc/OSCMessageText.h"
#include "osc/OSCStreamDecoder.h"
#include "osc/SlipFraming.h"

#include <QProcess>
#include <QTest>
#include <QUdpSocket>
#include <QtEndian>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>

using namespace orvane;
using namespace std::string_literals;

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

} // namespace

class OSCWireTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void decodes_data();
    void decodes();
    void rejectsWithoutAllocatingMoreThanIsThere_data();
    void rejectsWithoutAllocatingMoreThanIsThere();
    void writesWhatOscdumpReads();
    void decodesFrames_data();
    void decodesFrames();
    void slipDropsRunawayFrameAtTheEndOfTheChunkThatExceeds();
    void impossibleLengthIsOutOfStepAtOnce();
    void textWithoutFramesIsOutOfStepPastTheLimit_data();
    void textWithoutFramesIsOutOfStepPastTheLimit();
};

// Lone messages and bundles, with what they decode to ("" when the packet is refused).
void OSCWireTest::decodes_data()
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
    QTest::newRow("64-bit int and time tag keep their low half, double narrows")
        << a + str(",htd") + be64(0x123456789ABCDEF0ull) + be64(0xDEADBEEF00000007ull) +
               be64(0x3FF8000000000000ull)
        << "/a ,iif -1698898192 7 1.5";
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

void OSCWireTest::decodes()
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
void OSCWireTest::rejectsWithoutAllocatingMoreThanIsThere_data()
{
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray tags = str("/a") + "," + QByteArray(4 * 1024 * 1024 - 16, 'i');
    QTest::newRow("4 MiB of ints without payload") << str(tags);
    QTest::newRow("4 MiB of strings without payload") << str(QByteArray(tags).replace('i', 's'));
    QTest::newRow("4 MiB of trues and an unknown tag")
        << str(QByteArray(tags).replace('i', 'T') + "x");
    QTest::newRow("a blob that claims 1 GiB") << str("/a") + str(",b") + be32(1u << 30) + be32(0);
}

void OSCWireTest::rejectsWithoutAllocatingMoreThanIsThere()
{
    QFETCH(QByteArray, bytes);
    largestAllocation = 0;
    const bool decoded = decodeOSCMessage(bytes).has_value();
    const std::size_t largest = largestAllocation;
    QVERIFY(!decoded);
    QVERIFY2(largest <= std::size_t(bytes.size()), qPrintable(QString::number(largest)));
}

void OSCWireTest::writesWhatOscdumpReads()
{
    quint16 port = 0;
    {
        QUdpSocket probe;
        QVERIFY(probe.bind(QHostAddress::LocalHost, 0));
        port = probe.localPort();
    }
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
    QCOMPARE(lines.last().section(' ', 1),
             R"(/all ifsbbsTFNif -7 2.500000 "abcd" [2b 0x1 0xab] [0b ] "" #T #F Nil 9 0.100000)");
}

// Every row whole and cut into pieces, because TCP splits anywhere.
void OSCWireTest::decodesFrames_data()
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

void OSCWireTest::decodesFrames()
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

void OSCWireTest::slipDropsRunawayFrameAtTheEndOfTheChunkThatExceeds()
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

void OSCWireTest::impossibleLengthIsOutOfStepAtOnce()
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

void OSCWireTest::textWithoutFramesIsOutOfStepPastTheLimit_data()
{
    QTest::addColumn<OSCFraming>("framing");
    QTest::addColumn<qsizetype>("length");
    for (OSCFraming framing : {OSCFraming::slip, OSCFraming::lengthPrefixed}) {
        const QByteArray name = rawValue(framing).toLatin1();
        QTest::newRow(name + ", 262,144 bytes") << framing << qsizetype(262'144);
        QTest::newRow(name + ", 262,145 bytes") << framing << qsizetype(262'145);
    }
}

void OSCWireTest::textWithoutFramesIsOutOfStepPastTheLimit()
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

QTEST_GUILESS_MAIN(OSCWireTest)
#include "OSCWireTest.moc"
