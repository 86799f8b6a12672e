#include "osc/OSCMessage.h"
#include "osc/OSCMessageText.h"

#include "osc/OSCTestSupport.h"

#include <QHostAddress>
#include <QNetworkDatagram>
#include <QProcess>
#include <QUdpSocket>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>
#include <type_traits>

using namespace orvane;
using namespace orvane::wire;

namespace {

// The largest single request to operator new since the last reset: the decoder must never ask
// for more than the packet could hold.
std::atomic<std::size_t> largestAllocation{0};

void* allocateCounted(std::size_t size) noexcept
{
    std::size_t seen = largestAllocation.load(std::memory_order_relaxed);
    while (size > seen && !largestAllocation.compare_exchange_weak(seen, size)) {
    }
    return std::malloc(size == 0 ? 1 : size);
}

} // namespace

void* operator new(std::size_t size)
{
    if (void* memory = allocateCounted(size))
        return memory;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocateCounted(size);
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}

namespace {

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

// `count` bundles, one inside the other, around `inner`.
QByteArray nested(int count, const QByteArray& inner)
{
    QByteArray bytes = inner;
    for (int i = 0; i < count; ++i)
        bytes = bundle({bytes});
    return bytes;
}

} // namespace

class OSCMessageTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void decodesOneMessage_data();
    void decodesOneMessage();
    void rejectsWithoutAllocatingMoreThanIsThere_data();
    void rejectsWithoutAllocatingMoreThanIsThere();
    void decodesPackets_data();
    void decodesPackets();
    void encodes_data();
    void encodes();
    void writesMonitorText_data();
    void writesMonitorText();
    void readsWhatOscsendWrites_data();
    void readsWhatOscsendWrites();
    void writesWhatOscdumpReads_data();
    void writesWhatOscdumpReads();
};

void OSCMessageTest::decodesOneMessage_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<OSCMessages>("expected"); // empty: rejected

    const QByteArray a = str("/a");
    QTest::newRow("no type-tag string") << a << one(message("/a"));
    QTest::newRow("comma alone") << a + str(",") << one(message("/a"));
    QTest::newRow("empty type-tag string") << a + QByteArray(4, '\0') << OSCMessages{};
    QTest::newRow("tags without comma") << a + str("i") + be32(1) << OSCMessages{};
    QTest::newRow("address without slash") << str("eos/out") + str(",") << OSCMessages{};
    QTest::newRow("empty address") << str("") + str(",") << OSCMessages{};
    QTest::newRow("empty data") << QByteArray() << OSCMessages{};
    QTest::newRow("address without zero") << QByteArray("/abc") << OSCMessages{};
    QTest::newRow("tags without zero") << a + QByteArray(",iii") << OSCMessages{};
    QTest::newRow("address shorter than its padding")
        << QByteArray("/ab\0", 4) + str(",") << one(message("/ab"));
    QTest::newRow("address of 4 bytes")
        << QByteArray("/abc\0\0\0\0", 8) + str(",i") + be32(7) << one(message("/abc", {7}));
    QTest::newRow("padding bytes are not checked")
        << QByteArray("/a\0x,i\0y", 8) + be32(7) << one(message("/a", {7}));

    QTest::newRow("int negative") << a + str(",i") + be32(0xFFFFFFFE) << one(message("/a", {-2}));
    QTest::newRow("int with 3 bytes left") << a + str(",i") + QByteArray(3, '\1') << OSCMessages{};
    QTest::newRow("float") << a + str(",f") + be32(0x3FC00000) << one(message("/a", {1.5f}));
    QTest::newRow("float infinity")
        << a + str(",f") + be32(0xFF800000)
        << one(message("/a", {-std::numeric_limits<float>::infinity()}));
    QTest::newRow("string and symbol")
        << a + str(",sS") + str("Intro") + str("go") << one(message("/a", {"Intro", "go"}));
    QTest::newRow("string of 4 bytes then int")
        << a + str(",si") + str("abcd") + be32(9) << one(message("/a", {"abcd", 9}));
    QTest::newRow("string with utf-8") << a + str(",s") + str("Fade \xE2\x86\x92 40%")
                                       << one(message("/a", {"Fade \xE2\x86\x92 40%"}));
    QTest::newRow("string with invalid utf-8 is kept, replaced")
        << a + str(",s") +
               str("a\xFF"
                   "b")
        << one(message("/a", {"a\xEF\xBF\xBD"
                              "b"}));
    QTest::newRow("address with invalid utf-8 is kept, replaced")
        << str("/\xC3") + str(",") << one(message("/\xEF\xBF\xBD"));
    QTest::newRow("string runs off the end") << a + str(",s") + QByteArray("abc") << OSCMessages{};
    QTest::newRow("blob") << a + str(",bi") + be32(5) +
                                 QByteArray("\x01\x02\x03\x04\x05\0\0\0", 8) + be32(3)
                          << one(message("/a", {QByteArray("\x01\x02\x03\x04\x05"), 3}));
    QTest::newRow("blob empty then int")
        << a + str(",bi") + be32(0) + be32(4) << one(message("/a", {QByteArray(), 4}));
    QTest::newRow("blob without its padding at the end")
        << a + str(",b") + be32(2) + QByteArray("xy") << one(message("/a", {QByteArray("xy")}));
    QTest::newRow("blob longer than the data")
        << a + str(",b") + be32(9) + QByteArray(8, 'x') << OSCMessages{};
    QTest::newRow("blob length near 4 GiB")
        << a + str(",b") + be32(0xFFFFFFFF) + QByteArray(8, 'x') << OSCMessages{};
    QTest::newRow("blob without length") << a + str(",b") + QByteArray(2, '\0') << OSCMessages{};
    QTest::newRow("64-bit int and double")
        << a + str(",hd") + be64(0x123456789ABCDEF0ull) + be64(0x3FF8000000000000ull)
        << one(message("/a", {std::int32_t(0x9ABCDEF0), 1.5f}));
    QTest::newRow("time tag keeps its low half")
        << a + str(",t") + be64(0xDEADBEEF00000007ull) << one(message("/a", {7}));
    QTest::newRow("double with 7 bytes left")
        << a + str(",d") + QByteArray(7, '\0') << OSCMessages{};
    QTest::newRow("double too large narrows to infinity")
        << a + str(",d") + be64(0x7FEFFFFFFFFFFFFFull)
        << one(message("/a", {std::numeric_limits<float>::infinity()}));
    QTest::newRow("TFNI read no bytes")
        << a + str(",TFNI") << one(message("/a", {true, false, OSCNull{}, OSCNull{}}));
    QTest::newRow("unknown tag r after good ones")
        << a + str(",ir") + be32(1) + be32(2) << OSCMessages{};
    QTest::newRow("array tags are unknown") << a + str(",[i]") + be32(1) << OSCMessages{};
    QTest::newRow("bytes after the last argument are ignored")
        << a + str(",i") + be32(1) + QByteArray("junk") << one(message("/a", {1}));
}

void OSCMessageTest::decodesOneMessage()
{
    QFETCH(QByteArray, bytes);
    QFETCH(OSCMessages, expected);
    const std::optional<OSCMessage> decoded = decodeOSCMessage(bytes);
    QCOMPARE(decoded.has_value(), !expected.empty());
    if (decoded)
        QCOMPARE(*decoded, expected.front());
    // A lone message decodes the same way as a packet.
    QCOMPARE(decodeOSCPacket(bytes), expected);
}

// A 4 MiB frame is allowed on a stream; what it claims to hold must not be allocated before
// the claim is checked.
void OSCMessageTest::rejectsWithoutAllocatingMoreThanIsThere_data()
{
    QTest::addColumn<QByteArray>("bytes");
    constexpr qsizetype kFrame = 4 * 1024 * 1024;
    const QByteArray a = str("/a");
    const auto tags = [&](char tag, const QByteArray& last = {}) {
        return a + str("," + QByteArray(kFrame - 16, tag) + last);
    };
    QTest::newRow("4 MiB of ints without payload") << tags('i');
    QTest::newRow("4 MiB of strings without payload") << tags('s');
    QTest::newRow("4 MiB of doubles without payload") << tags('d');
    QTest::newRow("4 MiB of trues and an unknown tag") << tags('T', "x");
    QTest::newRow("ints one word short") << a + str(",iiii") + be32(1) + be32(2) + be32(3);
    QTest::newRow("a blob that claims 1 GiB") << a + str(",b") + be32(1u << 30) + be32(0);
    QTest::newRow("trues, then a string without its zero")
        << a + str("," + QByteArray(4096, 'T') + "s") + QByteArray("open", 4);
}

void OSCMessageTest::rejectsWithoutAllocatingMoreThanIsThere()
{
    QFETCH(QByteArray, bytes);
    largestAllocation = 0;
    const bool decoded = decodeOSCMessage(bytes).has_value();
    const std::size_t largest = largestAllocation;
    QVERIFY(!decoded);
    QVERIFY2(largest <= std::size_t(bytes.size()),
             qPrintable(QStringLiteral("asked for %1 bytes").arg(largest)));
}

void OSCMessageTest::decodesPackets_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<OSCMessages>("expected");

    const QByteArray first = encodeOSC(message("/first", {1}));
    const QByteArray second = encodeOSC(message("/second", {"two"}));
    const QByteArray bad = str("nope") + str(",");

    QTest::newRow("two messages in order")
        << bundle({first, second})
        << OSCMessages{message("/first", {1}), message("/second", {"two"})};
    QTest::newRow("first element of size 0") << bundle({QByteArray(), first}) << OSCMessages{};
    QTest::newRow("size 0 ends the bundle")
        << bundle({first, QByteArray(), second}) << OSCMessages{message("/first", {1})};
    QTest::newRow("bad element is skipped")
        << bundle({bad, second}) << OSCMessages{message("/second", {"two"})};
    QTest::newRow("element running past the end keeps what came before")
        << bundle({first}) + be32(100) + second << OSCMessages{message("/first", {1})};
    QTest::newRow("trailing bytes too short for a size")
        << bundle({first}) + QByteArray(3, '\x7F') << OSCMessages{message("/first", {1})};
    QTest::newRow("size of 4 GiB")
        << bundle({first}) + be32(0xFFFFFFFF) + second << OSCMessages{message("/first", {1})};
    QTest::newRow("nested bundles flatten in order")
        << bundle({first, bundle({second, bundle({first})}), second})
        << OSCMessages{message("/first", {1}), message("/second", {"two"}), message("/first", {1}),
                       message("/second", {"two"})};
    QTest::newRow("8 levels are read") << nested(8, first) << one(message("/first", {1}));
    QTest::newRow("9 levels yield nothing from the innermost") << nested(9, first) << OSCMessages{};
    QTest::newRow("9 levels keep the outer messages")
        << bundle({second, nested(8, first)}) << OSCMessages{message("/second", {"two"})};
    QTest::newRow("bundle of 19 bytes")
        << str("#bundle") + be64(0) + QByteArray(3, '\0') << OSCMessages{};
    QTest::newRow("bundle of header and time tag only")
        << str("#bundle") + be64(0) << OSCMessages{};
    QTest::newRow("element of a message without tags") << bundle({str("/x")}) << one(message("/x"));
    QTest::newRow("bundle header without its zero is a bad message")
        << QByteArray("#bundlex") + be64(0) + be32(first.size()) + first << OSCMessages{};
    QTest::newRow("element sizes need not be multiples of 4")
        << bundle({str("/x") + QByteArray(","), second})
        << OSCMessages{message("/second", {"two"})};
}

void OSCMessageTest::decodesPackets()
{
    QFETCH(QByteArray, bytes);
    QFETCH(OSCMessages, expected);
    QCOMPARE(decodeOSCPacket(bytes), expected);
}

void OSCMessageTest::encodes_data()
{
    QTest::addColumn<OSCMessage>("input");
    QTest::addColumn<QByteArray>("bytes");

    QTest::newRow("no arguments") << message("/eos/ping")
                                  << QByteArray("/eos/ping\0\0\0,\0\0\0", 16);
    QTest::newRow("address of 4 bytes") << message("/abc") << QByteArray("/abc\0\0\0\0,\0\0\0", 12);
    QTest::newRow("string of exactly 4 bytes")
        << message("/a", {"abcd"}) << QByteArray("/a\0\0,s\0\0abcd\0\0\0\0", 16);
    QTest::newRow("empty string") << message("/a", {""})
                                  << str("/a") + str(",s") + QByteArray(4, '\0');
    QTest::newRow("int and float big-endian")
        << message("/a", {-2, 1.5f})
        << str("/a") + str(",if") + be32(0xFFFFFFFE) + be32(0x3FC00000);
    QTest::newRow("blob padded") << message("/a", {QByteArray("\x01\x02\x03\x04\x05")})
                                 << str("/a") + str(",b") + be32(5) +
                                        QByteArray("\x01\x02\x03\x04\x05\0\0\0", 8);
    QTest::newRow("blob of 4 bytes has no padding")
        << message("/a", {QByteArray("wxyz")}) << str("/a") + str(",b") + be32(4) + "wxyz";
    QTest::newRow("empty blob") << message("/a", {QByteArray()}) << str("/a") + str(",b") + be32(0);
    QTest::newRow("bools and null write only tags")
        << message("/a", {true, false, OSCNull{}}) << str("/a") + str(",TFN");
    QTest::newRow("three tags fill the tag word")
        << message("/a", {1, 2, 3})
        << str("/a") + QByteArray(",iii\0\0\0\0", 8) + be32(1) + be32(2) + be32(3);
    QTest::newRow("utf-8 kept as bytes") << message("/\xC3\xA9", {"\xE2\x86\x92"})
                                         << str("/\xC3\xA9") + str(",s") + str("\xE2\x86\x92");
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

    QTest::newRow("cue text") << message("/eos/out/active/cue/text", {"1/14 Intro 5.0 40%"})
                              << R"(/eos/out/active/cue/text ,s "1/14 Intro 5.0 40%")";
    QTest::newRow("no arguments") << message("/eos/ping") << "/eos/ping ,";
    QTest::newRow("ints") << message("/a", {0, -2147483647 - 1, 2147483647})
                          << "/a ,iii 0 -2147483648 2147483647";
    QTest::newRow("floats shortest")
        << message("/a", {0.1f, 1.5f, 3.0f, -0.0f, 1e-45f, 3.4028235e38f})
        << "/a ,ffffff 0.1 1.5 3.0 -0.0 1e-45 3.4028235e+38";
    QTest::newRow("float not a number") << message("/a", {std::nanf("")}) << "/a ,f nan";
    QTest::newRow("json escapes") << message("/a", {"q\" b\\ t\t n\n c\x01 d\x7f"})
                                  << "/a ,s \"q\\\" b\\\\ t\\t n\\n c\\u0001 d\x7f\"";
    QTest::newRow("utf-8 passes through") << message("/a", {"\xC3\xA9"}) << "/a ,s \"\xC3\xA9\"";
    QTest::newRow("blob lower-case hex")
        << message("/a", {QByteArray("\x00\xAB\x0F", 3), QByteArray()}) << "/a ,bb 00ab0f ";
    QTest::newRow("bools and null print no text")
        << message("/a", {true, 7, false, OSCNull{}}) << "/a ,TiFN 7";
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
    QTest::addColumn<OSCMessages>("expected"); // empty: rejected

    auto m = [](std::initializer_list<Arg> arguments) { return one(message("/liblo", arguments)); };
    QTest::newRow("i") << QStringList{"i", "-42"} << m({-42});
    QTest::newRow("f") << QStringList{"f", "3.14"} << m({3.14f});
    QTest::newRow("s") << QStringList{"s", "1/14 Intro \xC3\xA9"} << m({"1/14 Intro \xC3\xA9"});
    QTest::newRow("S") << QStringList{"S", "symbol"} << m({"symbol"});
    QTest::newRow("TFNI") << QStringList{"TFNI"} << m({true, false, OSCNull{}, OSCNull{}});
    QTest::newRow("h keeps the low half") << QStringList{"h", "4294967301"} << m({5});
    QTest::newRow("h negative") << QStringList{"h", "-3"} << m({-3});
    QTest::newRow("d narrows") << QStringList{"d", "0.1"} << m({0.1f});
    QTest::newRow("mixed") << QStringList{"isTfd", "7", "Go", "2.5", "-1e300"}
                           << m({7, "Go", true, 2.5f, -std::numeric_limits<float>::infinity()});
    QTest::newRow("no arguments") << QStringList{} << m({});
    QTest::newRow("c is not read") << QStringList{"c", "x"} << OSCMessages{};
    QTest::newRow("m is not read") << QStringList{"m", "01020304"} << OSCMessages{};
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
    const QByteArray datagram = receiver.receiveDatagram().data();
    QCOMPARE(decodeOSCPacket(datagram), expected);
}

void OSCMessageTest::writesWhatOscdumpReads_data()
{
    QTest::addColumn<OSCMessage>("input");
    QTest::addColumn<QString>("printed"); // after oscdump's time stamp

    QTest::newRow("cue text") << message("/eos/out/active/cue/text", {"1/14 Intro 5.0 40%"})
                              << R"(/eos/out/active/cue/text s "1/14 Intro 5.0 40%")";
    QTest::newRow("no arguments") << message("/eos/ping") << "/eos/ping";
    QTest::newRow("every kind") << message("/all", {-7, 2.5f, "abcd", QByteArray("\x01\xAB", 2),
                                                    true, false, OSCNull{}})
                                << R"(/all ifsbTFN -7 2.500000 "abcd" [2b 0x1 0xab] #T #F Nil)";
    QTest::newRow("blob of 4 then int")
        << message("/b", {QByteArray("wxyz"), 9}) << "/b bi [4b 0x77 0x78 0x79 0x7a] 9";
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
    while (line.isEmpty()) {
        while (!dump.canReadLine())
            QVERIFY(dump.waitForReadyRead(5000));
        const QString next = QString::fromUtf8(dump.readLine()).trimmed();
        if (!next.contains("/ready")) // markers still in flight
            line = next;
    }
    // oscdump starts each line with its time stamp.
    QCOMPARE(line.section(' ', 1), printed);
}

QTEST_GUILESS_MAIN(OSCMessageTest)
#include "OSCMessageTest.moc"
