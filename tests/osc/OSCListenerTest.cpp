// The UDP listener against real senders on loopback and another process (osc-monitor, which
// prints what it hears), on a manual clock.
#include "osc/OSCListener.h"

#include "base/ManualClock.h"
#include "osc/OSCMessage.h"
#include "support/Golden.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTest>
#include <QUdpSocket>
#include <QtEndian>

using namespace orvane;
using State = OSCListener::State;

namespace {

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

// A bundle of the given elements, each with its size before it.
QByteArray bundle(const QByteArrayList& elements)
{
    QByteArray bytes("#bundle\0\0\0\0\0\0\0\0\1", 16);
    for (const QByteArray& element : elements) {
        char size[4];
        qToBigEndian(quint32(element.size()), size);
        bytes.append(size, 4).append(element);
    }
    return bytes;
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

class OSCListenerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void listensAndStops();
    void followsAndForgetsSenders_data();
    void followsAndForgetsSenders();
    void ownerMayReconfigureWhileHandlingAPacket();
    void takesTurnsOnAPortWithOscMonitor();
    void oscMonitorAnswersItsArguments_data();
    void oscMonitorAnswersItsArguments();
};

void OSCListenerTest::listensAndStops()
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
        QCOMPARE(listener.stateText(), kChoosePort);
        QCOMPARE(changes.size(), 1);
        QCOMPARE(clock.pendingCount(), 0u);
        listener.configure(true, nextPort);
    }
}

void OSCListenerTest::followsAndForgetsSenders_data()
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

void OSCListenerTest::followsAndForgetsSenders()
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

void OSCListenerTest::ownerMayReconfigureWhileHandlingAPacket()
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
void OSCListenerTest::takesTurnsOnAPortWithOscMonitor()
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
         {bundle({encodeOSC({"/bundle/first", {std::string("a")}}), bundle({inner})}), QByteArray(),
          QByteArray("hello"), encodeOSC({"/last", {}})})
        sender.writeDatagram(datagram, QHostAddress::LocalHost, port);
    QByteArray output;
    QTRY_VERIFY_WITH_TIMEOUT((output += monitor.readAllStandardOutput()).contains("/last"), 10000);
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
void OSCListenerTest::oscMonitorAnswersItsArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("output"); // its start
    QTest::addColumn<QByteArray>("errors");
    QTest::newRow("help") << QStringList{"--help"} << 0
                          << QByteArray("Usage: orvane osc-monitor [options]\n") << QByteArray();
    const QByteArray range = "Choose a port between 1 and 65535.\n";
    QTest::newRow("port 0") << QStringList{"--port", "0"} << 1 << QByteArray() << range;
    QTest::newRow("port 70000") << QStringList{"--port", "70000"} << 1 << QByteArray() << range;
    QTest::newRow("port not a number")
        << QStringList{"--port", "8001x"} << 2 << QByteArray()
        << QByteArray("orvane osc-monitor: the port must be a number, not '8001x'\n");
    QTest::newRow("unknown option") << QStringList{"--prot", "8001"} << 2 << QByteArray()
                                    << QByteArray("orvane osc-monitor: Unknown option 'prot'.\n");
    QTest::newRow("stray argument")
        << QStringList{"8001"} << 2 << QByteArray()
        << QByteArray("orvane osc-monitor: unexpected argument '8001'\n");
}

void OSCListenerTest::oscMonitorAnswersItsArguments()
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

QTEST_GUILESS_MAIN(OSCListenerTest)
#include "OSCListenerTest.moc"
