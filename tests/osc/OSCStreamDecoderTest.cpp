#include "osc/OSCStreamDecoder.h"
#include "osc/SlipFraming.h"

#include <QRandomGenerator>
#include <QTest>

using namespace orvane;

namespace {

QByteArray bytes(std::initializer_list<int> values)
{
    QByteArray out;
    for (int value : values)
        out.append(char(value));
    return out;
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

class OSCStreamDecoderTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void slipEncodesWithEndOnBothSides_data();
    void slipEncodesWithEndOnBothSides();
    void decodesFrames_data();
    void decodesFrames();
    void slipDropsRunawayFrameAtTheEndOfTheChunkThatExceeds();
    void impossibleLengthIsOutOfStepAtOnce();
    void textWithoutFramesIsOutOfStepPastTheLimit_data();
    void textWithoutFramesIsOutOfStepPastTheLimit();
    void packetResetsTheWatch();
    void randomPacketsSurviveFramingAndRandomCuts_data();
    void randomPacketsSurviveFramingAndRandomCuts();
};

void OSCStreamDecoderTest::slipEncodesWithEndOnBothSides_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QByteArray>("frame");
    QTest::newRow("empty") << QByteArray() << bytes({0xC0, 0xC0});
    QTest::newRow("plain") << QByteArray("ab") << bytes({0xC0, 'a', 'b', 0xC0});
    QTest::newRow("end and escape bytes")
        << bytes({0xC0, 0x01, 0xDB}) << bytes({0xC0, 0xDB, 0xDC, 0x01, 0xDB, 0xDD, 0xC0});
    QTest::newRow("escape codes alone are plain")
        << bytes({0xDC, 0xDD}) << bytes({0xC0, 0xDC, 0xDD, 0xC0});
}

void OSCStreamDecoderTest::slipEncodesWithEndOnBothSides()
{
    QFETCH(QByteArray, packet);
    QFETCH(QByteArray, frame);
    QCOMPARE(encodeSLIP(packet), frame);
    QCOMPARE(frameOSCPacket(OSCFraming::slip, packet), frame);
}

void OSCStreamDecoderTest::decodesFrames_data()
{
    QTest::addColumn<OSCFraming>("framing");
    QTest::addColumn<QByteArray>("wire");
    QTest::addColumn<QByteArrayList>("packets");
    const auto slip = [](const char* name) -> QTestData& {
        return QTest::newRow(name) << OSCFraming::slip;
    };
    slip("only ends") << bytes({0xC0, 0xC0, 0xC0}) << QByteArrayList{};
    slip("escaped end") << bytes({0xC0, 0x01, 0xDB, 0xDC, 0x02, 0xC0})
                        << QByteArrayList{bytes({0x01, 0xC0, 0x02})};
    slip("escaped escape") << bytes({0xDB, 0xDD, 0xC0}) << QByteArrayList{bytes({0xDB})};
    slip("invalid escape keeps the byte")
        << bytes({0xC0, 0xDB, 0x41, 0xC0}) << QByteArrayList{QByteArray("A")};
    slip("escape before end takes the end as data")
        << bytes({0x41, 0xDB, 0xC0, 0x42, 0xC0}) << QByteArrayList{bytes({0x41, 0xC0, 0x42})};
    slip("single-end framing") << QByteArray("one\xC0two\xC0") << QByteArrayList{"one", "two"};
    slip("double-end framing, in order")
        << (encodeSLIP("first") + encodeSLIP("second") + encodeSLIP("third"))
        << QByteArrayList{"first", "second", "third"};
    slip("unfinished frame yields nothing") << QByteArray("\xC0half") << QByteArrayList{};
    slip("leading garbage becomes its own packet")
        << (QByteArray("junk") + encodeSLIP("ok")) << QByteArrayList{"junk", "ok"};

    const auto length = [](const char* name) -> QTestData& {
        return QTest::newRow(name) << OSCFraming::lengthPrefixed;
    };
    length("one") << encodeLengthPrefixed("abcd") << QByteArrayList{"abcd"};
    length("prefix is big-endian")
        << (bytes({0, 0, 1, 2}) + QByteArray(258, 'x')) << QByteArrayList{QByteArray(258, 'x')};
    length("zero length is skipped")
        << (bytes({0, 0, 0, 0}) + encodeLengthPrefixed("valid")) << QByteArrayList{"valid"};
    length("several, in order") << (encodeLengthPrefixed("a") + encodeLengthPrefixed("") +
                                    encodeLengthPrefixed("bc"))
                                << QByteArrayList{"a", "bc"};
    length("payload holds slip bytes untouched")
        << encodeLengthPrefixed(bytes({0xC0, 0xDB})) << QByteArrayList{bytes({0xC0, 0xDB})};
    length("short prefix") << bytes({0, 0, 0}) << QByteArrayList{};
    length("half a frame") << encodeLengthPrefixed("abcdef").chopped(1) << QByteArrayList{};
    length("largest allowed prefix waits for its bytes")
        << bytes({0x00, 0x40, 0x00, 0x00, 'x'}) << QByteArrayList{};
}

void OSCStreamDecoderTest::decodesFrames()
{
    QFETCH(OSCFraming, framing);
    QFETCH(QByteArray, wire);
    QFETCH(QByteArrayList, packets);
    QCOMPARE(frameOSCPacket(OSCFraming::lengthPrefixed, "ab"), encodeLengthPrefixed("ab"));
    for (qsizetype chunk : {1, 2, 3, 5, 7, int(std::max<qsizetype>(1, wire.size()))}) {
        OSCStreamDecoder decoder(framing);
        QCOMPARE(decodeInPieces(decoder, wire, chunk), packets);
        QVERIFY(!decoder.isOutOfStep());
        if (framing == OSCFraming::slip) {
            SLIPDecoder slip;
            QCOMPARE(decodeInPieces(slip, wire, chunk), packets);
        }
    }
}

void OSCStreamDecoderTest::slipDropsRunawayFrameAtTheEndOfTheChunkThatExceeds()
{
    SLIPDecoder decoder;
    const QByteArray limit(SLIPDecoder::kMaxPacketBytes, 'x');
    // Exactly the limit is kept: the frame may still end.
    QCOMPARE(decoder.decode(limit), QByteArrayList{});
    QCOMPARE(decoder.bufferedBytes(), SLIPDecoder::kMaxPacketBytes);
    // One more byte and an escape pending: the frame and the escape are dropped together.
    QCOMPARE(decoder.decode(bytes({'y', 0xDB})), QByteArrayList{});
    QCOMPARE(decoder.bufferedBytes(), 0);
    QVERIFY(!decoder.isEscaping());
    // Collection starts afresh: the next byte is not taken as an escaped one.
    QCOMPARE(decoder.decode(bytes({0xDC, 'z', 0xC0})), QByteArrayList{bytes({0xDC, 'z'})});

    // 4,194,305 bytes in one chunk are dropped as well.
    SLIPDecoder whole;
    QCOMPARE(whole.decode(limit + "y"), QByteArrayList{});
    QCOMPARE(whole.bufferedBytes(), 0);
    QCOMPARE(whole.decode(encodeSLIP("after")), QByteArrayList{"after"});
}

void OSCStreamDecoderTest::impossibleLengthIsOutOfStepAtOnce()
{
    OSCStreamDecoder decoder(OSCFraming::lengthPrefixed);
    // A good packet in the same chunk still comes out; the bytes after the bad prefix go.
    const QByteArray wire = encodeLengthPrefixed("good") + bytes({0x00, 0x40, 0x00, 0x01}) +
                            encodeLengthPrefixed("lost");
    QCOMPARE(decoder.decode(wire), QByteArrayList{"good"});
    QVERIFY(decoder.isOutOfStep());
    QCOMPARE(decoder.bytesWithoutPacket(), 0);
    // The buffer was emptied: a fresh frame decodes by itself, and the verdict stays.
    QCOMPARE(decoder.decode(encodeLengthPrefixed("next")), QByteArrayList{"next"});
    QVERIFY(decoder.isOutOfStep());
}

void OSCStreamDecoderTest::textWithoutFramesIsOutOfStepPastTheLimit_data()
{
    QTest::addColumn<OSCFraming>("framing");
    QTest::addColumn<qsizetype>("length");
    QTest::addColumn<bool>("outOfStep");
    // Small length prefixes that never complete: "\0\0\0\x10" repeated keeps asking for more.
    for (OSCFraming framing : {OSCFraming::slip, OSCFraming::lengthPrefixed}) {
        const QByteArray name = rawValue(framing).toLatin1();
        QTest::newRow(name + ", 262,144 bytes") << framing << qsizetype(262'144) << false;
        QTest::newRow(name + ", 262,145 bytes") << framing << qsizetype(262'145) << true;
    }
}

void OSCStreamDecoderTest::textWithoutFramesIsOutOfStepPastTheLimit()
{
    QFETCH(OSCFraming, framing);
    QFETCH(qsizetype, length);
    QFETCH(bool, outOfStep);
    // For SLIP, text without END bytes; for length prefixes, a first prefix asking for 4 MiB
    // followed by text, so no frame can complete before the limit.
    QByteArray wire(length, 'a');
    if (framing == OSCFraming::lengthPrefixed)
        wire.replace(0, 4, bytes({0x00, 0x40, 0x00, 0x00}));
    for (qsizetype chunk : {qsizetype(65'536), qsizetype(1000), length}) {
        OSCStreamDecoder decoder(framing);
        decodeInPieces(decoder, wire, chunk);
        QCOMPARE(decoder.isOutOfStep(), outOfStep);
    }
}

void OSCStreamDecoderTest::packetResetsTheWatch()
{
    OSCStreamDecoder decoder(OSCFraming::slip);
    decoder.decode(QByteArray(200'000, 'a'));
    QCOMPARE(decoder.decode("\xC0"), QByteArrayList{QByteArray(200'000, 'a')});
    QCOMPARE(decoder.bytesWithoutPacket(), 0);
    decoder.decode(QByteArray(200'000, 'b'));
    QVERIFY(!decoder.isOutOfStep());
    decoder.decode(QByteArray(62'145, 'b'));
    QVERIFY(decoder.isOutOfStep());
}

void OSCStreamDecoderTest::randomPacketsSurviveFramingAndRandomCuts_data()
{
    QTest::addColumn<OSCFraming>("framing");
    QTest::newRow("slip") << OSCFraming::slip;
    QTest::newRow("lengthPrefixed") << OSCFraming::lengthPrefixed;
}

void OSCStreamDecoderTest::randomPacketsSurviveFramingAndRandomCuts()
{
    QFETCH(OSCFraming, framing);
    QRandomGenerator random(20'261'123);
    for (int round = 0; round < 200; ++round) {
        QByteArrayList packets;
        QByteArray wire;
        const int count = random.bounded(1, 20);
        for (int i = 0; i < count; ++i) {
            // Lengths up to a few kilobytes, biased to the framing's special bytes.
            QByteArray packet(random.bounded(1, random.bounded(2) ? 40 : 5000), Qt::Uninitialized);
            for (char& byte : packet) {
                const int pick = random.bounded(8);
                byte = pick == 0 ? slip::kEnd : pick == 1 ? slip::kEsc : char(random.bounded(256));
            }
            packets.append(packet);
            wire += frameOSCPacket(framing, packet);
        }
        OSCStreamDecoder decoder(framing);
        QByteArrayList got;
        for (qsizetype at = 0; at < wire.size();) {
            const qsizetype piece = random.bounded(0, 3000);
            got += decoder.decode(wire.mid(at, piece));
            at += piece;
        }
        QCOMPARE(got, packets);
        QVERIFY(!decoder.isOutOfStep());
    }
}

QTEST_APPLESS_MAIN(OSCStreamDecoderTest)
#include "OSCStreamDecoderTest.moc"
