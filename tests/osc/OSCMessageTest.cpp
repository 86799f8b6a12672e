#include "osc/OSCMessage.h"
#include "osc/OSCMessageText.h"

#include <QNetworkDatagram>
#include <QProcess>
#include <QTest>
#include <QUdpSocket>
#include <QtEndian>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>

using namespace orvane;
using OSCMessages = std::vector<OSCMessage>;
Q_DECLARE_METATYPE(OSCMessage)
Q_DECLARE_METATYPE(OSCMessages)

namespace orvane {
// Printed by QCOMPARE when a comparison fails.
char* toString(const OSCMessages& messages)
{
    std::string text;
    for (const OSCMessage& message : messages)
        text += "[" + oscMessageText(message) + "]";
    return qstrdup(text.c_str());
}
} // namespace orvane

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

// A bundle with one size-prefixed element per entry.
QByteArray bundle(std::initializer_list<QByteArray> elements)
{
    QByteArray bytes = str("#bundle") + be64(1);
    for (const QByteArray& element : elements)
        bytes += be32(quint32(element.size())) + element;
    return bytes;
}

// An argument written the short way: a C string is text, not a bool.
struct Arg {
    template <class T> Arg(T value)
    {
        if constexpr (std::is_same_v<T, const char*>)
            this->value = std::string(value);
        else
            this->value = std::move(value);
    }
    OSCArgument value;
};

OSCMessage message(std::string address, std::initializer_list<Arg> arguments = {})
{
    OSCMessage result{std::move(address), {}};
    for (const Arg& argument : arguments)
        result.arguments.push_back(argument.value);
    return result;
}

OSCMessages one(OSCMessage m)
{
    return OSCMessages{std::move(m)};
}

} // namespace

class OSCMessageTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void decodes_data();
    void decodes();
    void rejectsWithoutAllocatingMoreThanIsThere_data();
    void rejectsWithoutAllocatingMoreThanIsThere();
    void encodes_data();
    void encodes();
    void writesMonitorText_data();
    void writesMonitorText();
    void readsWhatOscsendWrites_data();
    void readsWhatOscsendWrites();
    void writesWhatOscdumpReads_data();
    void writesWhatOscdumpReads();
};

// Lone messages and bundles; an empty list means the packet is refused.
void OSCMessageTest::decodes_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<OSCMessages>("expected");

    const QByteArray a = str("/a");
    QTest::newRow("no type-tag string") << a << one(message("/a"));
    QTest::newRow("empty type-tag string") << a + QByteArray(4, '\0') << OSCMessages{};
    QTest::newRow("tags without comma") << a + str("i") + be32(1) << OSCMessages{};
    QTest::newRow("address without slash") << str("eos/out") + str(",") << OSCMessages{};
    QTest::newRow("address without zero") << QByteArray("/abc") << OSCMessages{};
    QTest::newRow("padding bytes are not checked")
        << QByteArray("/a\0x,i\0y", 8) + be32(7) << one(message("/a", {7}));
    QTest::newRow("int negative") << a + str(",i") + be32(0xFFFFFFFE) << one(message("/a", {-2}));
    QTest::newRow("int with 3 bytes left") << a + str(",i") + QByteArray(3, '\1') << OSCMessages{};
    QTest::newRow("float") << a + str(",f") + be32(0x3FC00000) << one(message("/a", {1.5f}));
    QTest::newRow("string and symbol")
        << a + str(",sS") + str("Intro") + str("go") << one(message("/a", {"Intro", "go"}));
    QTest::newRow("string of 4 bytes then int")
        << a + str(",si") + str("abcd") + be32(9) << one(message("/a", {"abcd", 9}));
    QTest::newRow("invalid utf-8 is kept, replaced")
        << a + str(",s") + str("a\xFF") << one(message("/a", {"a\xEF\xBF\xBD"}));
    QTest::newRow("string runs off the end") << a + str(",s") + QByteArray("abc") << OSCMessages{};
    QTest::newRow("blob then int")
        << a + str(",bi") + be32(5) + QByteArray("12345\0\0\0", 8) + be32(3)
        << one(message("/a", {QByteArray("12345"), 3}));
    QTest::newRow("blob without its padding at the end")
        << a + str(",b") + be32(2) + QByteArray("xy") << one(message("/a", {QByteArray("xy")}));
    QTest::newRow("blob longer than the data")
        << a + str(",b") + be32(9) + QByteArray(8, 'x') << OSCMessages{};
    QTest::newRow("blob length near 4 GiB")
        << a + str(",b") + be32(0xFFFFFFFF) + QByteArray(8, 'x') << OSCMessages{};
    QTest::newRow("64-bit int and time tag keep their low half, double narrows")
        << a + str(",htd") + be64(0x123456789ABCDEF0ull) + be64(0xDEADBEEF00000007ull) +
               be64(0x3FF8000000000000ull)
        << one(message("/a", {std::int32_t(0x9ABCDEF0), 7, 1.5f}));
    QTest::newRow("TFNI read no bytes")
        << a + str(",TFNI") << one(message("/a", {true, false, OSCNull{}, OSCNull{}}));
    QTest::newRow("unknown tag after good ones")
        << a + str(",ir") + be32(1) + be32(2) << OSCMessages{};
    QTest::newRow("bytes after the last argument are ignored")
        << a + str(",i") + be32(1) + QByteArray("junk") << one(message("/a", {1}));

    const QByteArray first = encodeOSC(message("/first", {1}));
    const QByteArray second = encodeOSC(message("/second", {"two"}));
    const auto nested = [](int count, QByteArray bytes) {
        while (count-- > 0)
            bytes = bundle({bytes});
        return bytes;
    };
    QTest::newRow("bundle: nested bundles flatten in order")
        << bundle({first, bundle({second, bundle({first})}), second})
        << OSCMessages{message("/first", {1}), message("/second", {"two"}), message("/first", {1}),
                       message("/second", {"two"})};
    QTest::newRow("bundle: size 0 ends it")
        << bundle({first, QByteArray(), second}) << one(message("/first", {1}));
    QTest::newRow("bundle: a bad element is skipped")
        << bundle({str("nope") + str(","), second}) << one(message("/second", {"two"}));
    QTest::newRow("bundle: an element past the end keeps what came before")
        << bundle({first}) + be32(100) + second << one(message("/first", {1}));
    QTest::newRow("bundle: trailing bytes too short for a size")
        << bundle({first}) + QByteArray(3, '\x7F') << one(message("/first", {1}));
    QTest::newRow("bundle: element sizes need not be multiples of 4")
        << bundle({str("/x") + QByteArray(","), second}) << one(message("/second", {"two"}));
    QTest::newRow("bundle: 8 levels are read") << nested(8, first) << one(message("/first", {1}));
    QTest::newRow("bundle: 9 levels are not") << nested(9, first) << OSCMessages{};
    QTest::newRow("bundle of 19 bytes")
        << str("#bundle") + be64(0) + QByteArray(3, '\0') << OSCMessages{};
    QTest::newRow("bundle header without its zero is a bad message")
        << QByteArray("#bundlex") + be64(0) + be32(first.size()) + first << OSCMessages{};
}

void OSCMessageTest::decodes()
{
    QFETCH(QByteArray, bytes);
    QFETCH(OSCMessages, expected);
    QCOMPARE(decodeOSCPacket(bytes), expected);
    if (!bytes.startsWith("#bundle"))
        QCOMPARE(decodeOSCMessage(bytes),
                 expected.empty() ? std::nullopt : std::optional(expected.front()));
}

// A 4 MiB frame is allowed on a stream; what it claims to hold must not be allocated before
// the claim is checked.
void OSCMessageTest::rejectsWithoutAllocatingMoreThanIsThere_data()
{
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray tags = str("/a") + "," + QByteArray(4 * 1024 * 1024 - 16, 'i');
    QTest::newRow("4 MiB of ints without payload") << str(tags);
    QTest::newRow("4 MiB of strings without payload") << str(QByteArray(tags).replace('i', 's'));
    QTest::newRow("4 MiB of trues and an unknown tag")
        << str(QByteArray(tags).replace('i', 'T') + "x");
    QTest::newRow("a blob that claims 1 GiB") << str("/a") + str(",b") + be32(1u << 30) + be32(0);
}

void OSCMessageTest::rejectsWithoutAllocatingMoreThanIsThere()
{
    QFETCH(QByteArray, bytes);
    largestAllocation = 0;
    const bool decoded = decodeOSCMessage(bytes).has_value();
    const std::size_t largest = largestAllocation;
    QVERIFY(!decoded);
    QVERIFY2(largest <= std::size_t(bytes.size()), qPrintable(QString::number(largest)));
}

void OSCMessageTest::encodes_data()
{
    QTest::addColumn<OSCMessage>("input");
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray a = str("/a");
    QTest::newRow("no arguments") << message("/eos/ping") << str("/eos/ping") + str(",");
    QTest::newRow("string of exactly 4 bytes")
        << message("/a", {"abcd"}) << QByteArray("/a\0\0,s\0\0abcd\0\0\0\0", 16);
    QTest::newRow("int and float big-endian")
        << message("/a", {-2, 1.5f}) << a + str(",if") + be32(0xFFFFFFFE) + be32(0x3FC00000);
    QTest::newRow("blobs padded") << message("/a", {QByteArray("12345"), QByteArray("wxyz"),
                                                    QByteArray()})
                                  << a + str(",bbb") + be32(5) + QByteArray("12345\0\0\0", 8) +
                                         be32(4) + "wxyz" + be32(0);
    QTest::newRow("bools and null write only tags")
        << message("/a", {true, false, OSCNull{}}) << a + str(",TFN");
    QTest::newRow("three tags fill the tag word")
        << message("/a", {1, 2, 3})
        << a + QByteArray(",iii\0\0\0\0", 8) + be32(1) + be32(2) + be32(3);
}

void OSCMessageTest::encodes()
{
    QFETCH(OSCMessage, input);
    QFETCH(QByteArray, bytes);
    const QByteArray encoded = encodeOSC(input);
    QCOMPARE(encoded.toHex(' '), bytes.toHex(' '));
    QCOMPARE(decodeOSCMessage(encoded), std::optional<OSCMessage>(input));
}

void OSCMessageTest::writesMonitorText_data()
{
    QTest::addColumn<OSCMessage>("input");
    QTest::addColumn<QString>("text");
    QTest::newRow("no arguments") << message("/eos/ping") << "/eos/ping ,";
    QTest::newRow("ints") << message("/a", {0, -2147483647 - 1}) << "/a ,ii 0 -2147483648";
    QTest::newRow("floats shortest")
        << message("/a", {0.1f, 3.0f, -0.0f, 1e-45f, 3.4028235e38f, std::nanf("")})
        << "/a ,ffffff 0.1 3.0 -0.0 1e-45 3.4028235e+38 nan";
    QTest::newRow("json escapes") << message("/a", {"q\" b\\ t\t n\n c\x01 d\x7f \xC3\xA9"})
                                  << "/a ,s \"q\\\" b\\\\ t\\t n\\n c\\u0001 d\x7f \xC3\xA9\"";
    QTest::newRow("blob lower-case hex, bools and null print no text")
        << message("/a", {QByteArray("\x00\xAB\x0F", 3), true, 7, false, OSCNull{}})
        << "/a ,bTiFN 00ab0f 7";
}

void OSCMessageTest::writesMonitorText()
{
    QFETCH(OSCMessage, input);
    QFETCH(QString, text);
    QCOMPARE(QString::fromStdString(oscMessageText(input)), text);
}

void OSCMessageTest::readsWhatOscsendWrites_data()
{
    QTest::addColumn<QStringList>("typesAndValues");
    QTest::addColumn<OSCMessages>("expected");

    auto m = [](std::initializer_list<Arg> arguments) { return one(message("/liblo", arguments)); };
    QTest::newRow("s") << QStringList{"s", "1/14 Intro \xC3\xA9"} << m({"1/14 Intro \xC3\xA9"});
    QTest::newRow("h keeps the low half") << QStringList{"h", "4294967301"} << m({5});
    QTest::newRow("mixed") << QStringList{"isTFNIfd", "7", "Go", "2.5", "-1e300"}
                           << m({7, "Go", true, false, OSCNull{}, OSCNull{}, 2.5f,
                                 -std::numeric_limits<float>::infinity()});
    QTest::newRow("no arguments") << QStringList{} << m({});
    QTest::newRow("c is not read") << QStringList{"c", "x"} << OSCMessages{};
}

void OSCMessageTest::readsWhatOscsendWrites()
{
    QFETCH(QStringList, typesAndValues);
    QFETCH(OSCMessages, expected);
    QUdpSocket receiver;
    QVERIFY(receiver.bind(QHostAddress::LocalHost, 0));
    const QStringList arguments =
        QStringList{"127.0.0.1", QString::number(receiver.localPort()), "/liblo"} + typesAndValues;
    QCOMPARE(QProcess::execute("oscsend", arguments), 0);
    QVERIFY(receiver.hasPendingDatagrams() || receiver.waitForReadyRead(5000));
    QCOMPARE(decodeOSCPacket(receiver.receiveDatagram().data()), expected);
}

void OSCMessageTest::writesWhatOscdumpReads_data()
{
    QTest::addColumn<OSCMessage>("input");
    QTest::addColumn<QString>("printed"); // after oscdump's time stamp
    QTest::newRow("no arguments") << message("/eos/ping") << "/eos/ping";
    QTest::newRow("every kind") << message("/all", {-7, 2.5f, "abcd", QByteArray("\x01\xAB", 2),
                                                    true, false, OSCNull{}, 9})
                                << R"(/all ifsbTFNi -7 2.500000 "abcd" [2b 0x1 0xab] #T #F Nil 9)";
}

void OSCMessageTest::writesWhatOscdumpReads()
{
    QFETCH(OSCMessage, input);
    QFETCH(QString, printed);
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

    // oscdump gives no sign that it listens: send a marker until it shows.
    QUdpSocket sender;
    const QByteArray marker = encodeOSC(message("/ready"));
    bool ready = false;
    for (int attempt = 0; attempt < 100 && !ready; ++attempt) {
        sender.writeDatagram(marker, QHostAddress::LocalHost, port);
        dump.waitForReadyRead(100);
        while (dump.canReadLine())
            ready = ready || dump.readLine().contains("/ready");
    }
    QVERIFY(ready);

    sender.writeDatagram(encodeOSC(input), QHostAddress::LocalHost, port);
    QString line;
    while (line.isEmpty() || line.contains("/ready")) { // markers still in flight
        while (!dump.canReadLine())
            QVERIFY(dump.waitForReadyRead(5000));
        line = QString::fromUtf8(dump.readLine()).trimmed();
    }
    QCOMPARE(line.section(' ', 1), printed); // oscdump starts each line with its time stamp
}

QTEST_GUILESS_MAIN(OSCMessageTest)
#include "OSCMessageTest.moc"
