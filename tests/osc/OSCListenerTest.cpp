#include "osc/OSCListener.h"

#include "base/ManualClock.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>
#include <QUdpSocket>

#include <algorithm>
#include <map>
#include <memory>

using namespace orvane;

using Kind = OSCListener::State::Kind;

namespace {

const QString kInUse =
    QStringLiteral("Port %1 is in use by another app. Choose a different port or quit that app.");
const QString kChoosePort = QStringLiteral("Choose a port between 1 and 65535.");

// A UDP port nobody holds right now.
quint16 freePort()
{
    QUdpSocket probe;
    if (!probe.bind(QHostAddress::Any, 0, QAbstractSocket::DontShareAddress))
        return 0;
    return probe.localPort();
}

// Senders on distinct loopback hosts, by a one-letter name. A lower-case name sends an empty
// datagram from the same socket as its upper-case one.
class Senders {
public:
    Senders()
    {
        for (const auto& [name, address] :
             {std::pair{'A', "127.0.0.1"}, {'B', "127.0.0.2"}, {'C', "::1"}}) {
            sockets_[name] = std::make_unique<QUdpSocket>();
            sockets_[name]->bind(QHostAddress(QString::fromLatin1(address)), 0);
        }
    }

    bool allBound() const
    {
        return std::ranges::all_of(sockets_, [](const auto& entry) {
            return entry.second->state() == QAbstractSocket::BoundState;
        });
    }

    // What the listener calls the sender, and where an answer goes.
    QString host(char name) const { return socket(name).localAddress().toString(); }
    QString hostAndPort(char name) const
    {
        return host(name) + u' ' + QString::number(socket(name).localPort());
    }

    // Sends the datagram that `name` stands for; returns the bytes sent.
    QByteArray send(char name, quint16 port)
    {
        const bool empty = QChar::isLower(name);
        const QByteArray data =
            empty ? QByteArray() : QByteArray("/from/") + name + '/' + QByteArray::number(++sent_);
        QUdpSocket& from = socket(name);
        const QHostAddress to = from.localAddress().protocol() == QAbstractSocket::IPv6Protocol
                                    ? QHostAddress(QHostAddress::LocalHostIPv6)
                                    : QHostAddress(QHostAddress::LocalHost);
        from.writeDatagram(data, to, port);
        return data;
    }

private:
    QUdpSocket& socket(char name) const { return *sockets_.at(QChar::toUpper(name)); }

    std::map<char, std::unique_ptr<QUdpSocket>> sockets_;
    int sent_ = 0;
};

} // namespace

class OSCListenerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void listensAndStops();
    void followsAndForgetsSenders_data();
    void followsAndForgetsSenders();
    void portInUseRetriesEveryFiveSeconds();
    void ownerMayReconfigureWhileHandlingAPacket();
    void takesTurnsOnAPortWithAnotherProcess();
};

void OSCListenerTest::listensAndStops()
{
    ManualClock clock;
    OSCListener listener(clock);
    QCOMPARE(listener.stateText(), QStringLiteral("Off"));
    const quint16 port = freePort();
    listener.configure(true, port);
    QCOMPARE(listener.state(), (OSCListener::State{Kind::listening, port, {}}));
    QCOMPARE(listener.stateText(), QStringLiteral("Listening on port %1").arg(port));

    // Bound without address reuse: another app that asks for reuse cannot share the port
    // silently.
    QUdpSocket other;
    QVERIFY(!other.bind(QHostAddress::AnyIPv4, port, QAbstractSocket::ShareAddress));

    const quint16 nextPort = freePort();
    listener.configure(true, nextPort);
    QCOMPARE(listener.stateText(), QStringLiteral("Listening on port %1").arg(nextPort));
    QVERIFY2(other.bind(QHostAddress::AnyIPv4, port), "the old port is free again");

    listener.configure(false, nextPort);
    QCOMPARE(listener.state(), OSCListener::State{});
    QCOMPARE(listener.stateText(), QStringLiteral("Off"));
    QUdpSocket third;
    QVERIFY2(third.bind(QHostAddress::Any, nextPort), "off frees the port");
    third.close();

    listener.configure(true, nextPort);
    QCOMPARE(listener.stateText(), QStringLiteral("Listening on port %1").arg(nextPort));

    // A port outside the range fails at once and is not retried.
    for (const int bad : {0, 70000}) {
        QSignalSpy changes(&listener, &OSCListener::stateChanged);
        listener.configure(true, bad);
        QCOMPARE(listener.state(), (OSCListener::State{Kind::failed, std::nullopt, kChoosePort}));
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

    QTest::newRow("repeats between changes")
        << "A A B B B A" << QByteArray("ABA") << QByteArray("AB");
    QTest::newRow("empty datagram changes nothing")
        << "A b A" << QByteArray("A") << QByteArray("A");
    QTest::newRow("IPv6 and IPv4 senders") << "C A C" << QByteArray("CAC") << QByteArray("AC");
    QTest::newRow("silent 60 s is kept") << "A 60 B" << QByteArray("AB") << QByteArray("AB");
    QTest::newRow("silent 61 s is dropped") << "A 61 B" << QByteArray("AB") << QByteArray("B");
    QTest::newRow("speaking again restarts the silence")
        << "A B 50 A 50 C" << QByteArray("ABAC") << QByteArray("AC");
    QTest::newRow("a known sender prunes nothing")
        << "A B 100 A" << QByteArray("ABA") << QByteArray("AB");
    QTest::newRow("empty datagrams do not keep a sender")
        << "A B 50 a 20 C" << QByteArray("ABC") << QByteArray("C");
    QTest::newRow("pruned sender comes back")
        << "A 61 B A" << QByteArray("ABA") << QByteArray("AB");
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
            [&] { changes << listener.lastSender().value_or(QStringLiteral("none")); });
    const quint16 port = freePort();
    listener.configure(true, port);
    QCOMPARE(listener.state().kind, Kind::listening);
    QCOMPARE(listener.lastSender(), std::nullopt);
    Senders senders;
    QVERIFY(senders.allBound());

    QStringList sent;
    char last = 0;
    for (const QString& step : steps.split(u' ')) {
        bool isNumber = false;
        const double seconds = step.toDouble(&isNumber);
        if (isNumber) {
            clock.advance(seconds);
            continue;
        }
        const char name = step.at(0).toLatin1();
        const QByteArray data = senders.send(name, port);
        if (data.isEmpty()) {
            // An empty datagram is never passed on; follow it with nothing and give it time.
            QTest::qWait(50);
            continue;
        }
        last = name;
        sent << QString::fromLatin1(data) + u' ' + senders.hostAndPort(name);
        // Each datagram is handled before the clock moves on.
        QTRY_COMPARE(heard.size(), sent.size());
    }
    QCOMPARE(heard, sent);
    QStringList expectedChanges;
    for (const char name : senderChanges)
        expectedChanges << senders.host(name);
    QCOMPARE(changes, expectedChanges);
    QCOMPARE(listener.lastSender(), std::optional<QString>(senders.host(last)));

    // The same port again keeps the socket: a restart would forget the senders.
    QSignalSpy stateChanges(&listener, &OSCListener::stateChanged);
    listener.configure(true, port);
    QCOMPARE(stateChanges.size(), 0);
    QStringList expected;
    for (const char name : remaining)
        expected << senders.hostAndPort(name);
    expected.sort();
    QCOMPARE(listener.sendersForTesting(), expected);
}

void OSCListenerTest::portInUseRetriesEveryFiveSeconds()
{
    ManualClock clock;
    const quint16 port = freePort();
    auto holder = std::make_unique<QUdpSocket>();
    QVERIFY(holder->bind(QHostAddress::Any, port, QAbstractSocket::DontShareAddress));

    OSCListener listener(clock);
    QSignalSpy changes(&listener, &OSCListener::stateChanged);
    listener.configure(true, port);
    const OSCListener::State inUse{Kind::failed, std::nullopt, kInUse.arg(port)};
    QCOMPARE(listener.state(), inUse);
    QCOMPARE(listener.stateText(), kInUse.arg(port));
    QCOMPARE(clock.pendingCount(), 1u);

    // Each retry that still finds the port taken keeps the state and schedules the next one.
    clock.advance(4.9);
    QCOMPARE(clock.pendingCount(), 1u);
    clock.advance(0.2);
    QCOMPARE(listener.state(), inUse);
    QCOMPARE(clock.pendingCount(), 1u);
    QCOMPARE(changes.size(), 1);

    // Configuring the same port while a retry waits does not restart at once.
    holder.reset();
    listener.configure(true, port);
    QCOMPARE(listener.state(), inUse);
    QCOMPARE(clock.pendingCount(), 1u);

    clock.advance(5.0);
    QCOMPARE(listener.state(), (OSCListener::State{Kind::listening, port, {}}));
    QCOMPARE(clock.pendingCount(), 0u);
    QCOMPARE(changes.size(), 2);

    // Turning the listener off cancels a pending retry.
    QUdpSocket again;
    listener.configure(false, port);
    QVERIFY(again.bind(QHostAddress::Any, port, QAbstractSocket::DontShareAddress));
    listener.configure(true, port);
    QCOMPARE(clock.pendingCount(), 1u);
    listener.configure(false, port);
    QCOMPARE(clock.pendingCount(), 0u);
    QCOMPARE(listener.stateText(), QStringLiteral("Off"));
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
    // Both wait in the socket before the first is read; the second dies with the old socket.
    const QByteArray first = senders.send('A', port);
    senders.send('B', port);
    QTRY_COMPARE(heard.size(), 1);
    QCOMPARE(heard.front(), first);
    QCOMPARE(listener.state(), (OSCListener::State{Kind::listening, nextPort, {}}));
    QTest::qWait(50);
    QCOMPARE(heard.size(), 1);

    const QByteArray third = senders.send('C', nextPort);
    QTRY_COMPARE(heard.size(), 2);
    QCOMPARE(heard.back(), third);
}

void OSCListenerTest::takesTurnsOnAPortWithAnotherProcess()
{
    const QString executable = qEnvironmentVariable("ORVANE_EXECUTABLE");
    QVERIFY2(!executable.isEmpty(), "ORVANE_EXECUTABLE names the orvane binary");
    const quint16 port = freePort();
    ManualClock clock;
    OSCListener listener(clock);
    listener.configure(true, port);
    QCOMPARE(listener.state().kind, Kind::listening);

    // The other process finds the port taken and retries on the real clock.
    QProcess monitor;
    monitor.start(executable,
                  {QStringLiteral("osc-monitor"), QStringLiteral("--port"), QString::number(port)});
    QVERIFY(monitor.waitForStarted());
    auto stopMonitor = qScopeGuard([&] {
        monitor.kill();
        monitor.waitForFinished();
    });
    QByteArray errors;
    QTRY_VERIFY_WITH_TIMEOUT((errors += monitor.readAllStandardError()).contains("in use"), 10000);
    QCOMPARE(errors, kInUse.arg(port).toUtf8() + '\n');

    listener.configure(false, port);
    QElapsedTimer waited;
    waited.start();
    QTRY_VERIFY_WITH_TIMEOUT(
        (errors += monitor.readAllStandardError()).contains("Listening on port"), 8000);
    QVERIFY2(waited.elapsed() < 6000, "within one retry");
    QCOMPARE(errors,
             kInUse.arg(port).toUtf8() + "\nListening on port " + QByteArray::number(port) + '\n');

    // Now the other process holds it, until it quits.
    listener.configure(true, port);
    QCOMPARE(listener.stateText(), kInUse.arg(port));
    monitor.kill();
    QVERIFY(monitor.waitForFinished());
    clock.advance(5.0);
    QCOMPARE(listener.state(), (OSCListener::State{Kind::listening, port, {}}));
}

QTEST_GUILESS_MAIN(OSCListenerTest)
#include "OSCListenerTest.moc"
