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
    void slipEncodesWithEndOnBothSides();
    void decodesFrames_data();
    void decodesFrames();
    void slipDropsRunawayFrameAtTheEndOfTheChunkThatExceeds();
    void impossibleLengthIsOutOfStepAtOnce();
    void textWithoutFramesIsOutOfStepPastTheLimit_data();
    void textWithoutFramesIsOutOfStepPastTheLimit();
    void randomPacketsSurviveFramingAndRandomCuts_data();
    void randomPacketsSurviveFramingAndRandomCuts();
};

void OSCStreamDecoderTest::slipEncodesWithEndOnBothSides()
{
    QCOMPARE(encodeSLIP(QByteArray()), bytes({0xC0, 0xC0}));
    QCOMPARE(frameOSCPacket(OSCFraming::slip, bytes({0xC0, 0x01, 0xDB, 0xDC})),
             bytes({0xC0, 0xDB, 0xDC, 0x01, 0xDB, 0xDD, 0xDC, 0xC0}));
}

// Every row whole and cut into pieces, because TCP splits anywhere.
void OSCStreamDecoderTest::decodesFrames_data()
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

void OSCStreamDecoderTest::decodesFrames()
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

void OSCStreamDecoderTest::slipDropsRunawayFrameAtTheEndOfTheChunkThatExceeds()
{
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

void OSCStreamDecoderTest::impossibleLengthIsOutOfStepAtOnce()
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

void OSCStreamDecoderTest::textWithoutFramesIsOutOfStepPastTheLimit_data()
{
    QTest::addColumn<OSCFraming>("framing");
    QTest::addColumn<qsizetype>("length");
    QTest::addColumn<bool>("outOfStep");
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
        // A packet before the text resets the count.
        const QByteArray frame = frameOSCPacket(framing, QByteArray(200'000, 'p'));
        decoder.decode(frame.chopped(1));
        QCOMPARE(decoder.decode(frame.right(1)).size(), 1);
        decodeInPieces(decoder, wire, chunk);
        QCOMPARE(decoder.isOutOfStep(), outOfStep);
    }
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
