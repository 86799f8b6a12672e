// The console link and its discovery. First the rules on their own: which addresses a sweep
// probes, what a reply says, how a scan's parts are joined, what the link says. Then real
// networks: the test moves into a network namespace of its own and makes pretend hosts joined
// to it by veth pairs, with pretend consoles on their addresses, and sweeps, probes, adopts and
// follows them. Nothing leaves the test's namespace.
#include "base/ManualClock.h"
#include "eos/EosConnection.h"
#include "eos/EosDiscovery.h"
#include "eos/EosProbe.h"
#include "peers/PretendConsole.h"
#include "support/NetNamespace.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <set>

#include <net/if.h>
#include <unistd.h>

using namespace orvane;
using Kind = OSCStream::Failure::Kind;
using StatusKind = OSCStream::Status::Kind;

namespace {

QHostAddress address(const char* text)
{
    return QHostAddress(QString::fromLatin1(text));
}

// A network from `local` in the test's namespace to a pretend host holding `peers`; null when
// it cannot be made.
std::unique_ptr<NetNamespace> network(const QString& name, const QString& local,
                                      const QStringList& peers, int prefixLength = 24)
{
    QString error;
    auto made = NetNamespace::create(name, QHostAddress(local), QHostAddress(peers.first()),
                                     prefixLength, &error);
    for (qsizetype at = 1; made && at < peers.size(); ++at) {
        if (!made->addPeerAddress(QHostAddress(peers[at]), prefixLength, &error))
            made.reset();
    }
    if (!made)
        qWarning("network %s: %s", qPrintable(name), qPrintable(error));
    return made;
}

// A pretend console on `at`, with its sockets on `host` (the test's namespace when null).
std::unique_ptr<PretendConsole> startConsole(NetNamespace* host, const char* at,
                                             PretendConsole::Options options = {},
                                             Clock& clock = Clock::system())
{
    options.address = address(at);
    auto console = std::make_unique<PretendConsole>(options, clock);
    if (host)
        console->setSocketFactory([host](int type) { return host->socket(type); });
    QString error;
    if (!console->start(&error))
        qWarning("pretend console: %s", qPrintable(error));
    return console;
}

PretendConsole::Options tcpOnly(const char* showName = "Pretend Show", bool speaksEos = true)
{
    PretendConsole::Options options;
    options.answersDiscovery = false;
    options.showName = QString::fromUtf8(showName);
    options.speaksEos = speaksEos;
    return options;
}

// What the last scan found, in the order of the hosts' text.
QList<DiscoveredConsole> byHost(const EosDiscovery& discovery)
{
    QList<DiscoveredConsole> consoles = discovery.consoles();
    std::sort(consoles.begin(), consoles.end(),
              [](const auto& a, const auto& b) { return a.host < b.host; });
    return consoles;
}

std::uint32_t ip(const QString& text)
{
    return QHostAddress(text).toIPv4Address();
}

ScanTarget target(const QString& address, int prefixLength, NetworkKind kind = NetworkKind::wired)
{
    const std::uint32_t netmask = prefixLength == 0 ? 0 : ~std::uint32_t(0) << (32 - prefixLength);
    return ScanTarget{QStringLiteral("eth0"), kind, ip(address), netmask, 2};
}

// A connection with its configuration held as the application model holds it: what the link
// reports (a console adopted or forgotten, the link turned on) is kept and applied again.
struct Link {
    explicit Link(Clock& clock = Clock::system())
        : connection(clock)
    {
        QObject::connect(&connection, &EosConnection::consoleAdopted, &connection,
                         [this](const EosConnection::Adoption& adoption) {
                             ++adoptions;
                             change([&](auto& c) {
                                 c.enabled = true;
                                 c.host = adoption.host;
                                 c.network = adoption.network;
                                 c.consoleID = adoption.consoleID;
                                 c.consoleName = adoption.consoleName;
                             });
                         });
        QObject::connect(&connection, &EosConnection::consoleForgotten, &connection, [this] {
            change([](auto& c) {
                c.host.clear();
                c.consoleID.reset();
                c.consoleName.reset();
            });
        });
        QObject::connect(&connection, &EosConnection::turnedOn, &connection,
                         [this] { change([](auto& c) { c.enabled = true; }); });
        connection.discovery().setDiscoveryDurationForTesting(Seconds(0.3));
    }
    // Changes the kept configuration as the settings window would, and applies it.
    template <class Change> void change(Change change)
    {
        change(kept);
        connection.apply(kept);
    }
    void configure(bool autoConnect, const QString& host, int port = 3037,
                   OSCFraming framing = OSCFraming::slip)
    {
        change([&](auto& c) { c = {true, autoConnect, host, port, framing}; });
    }
    // Lets the running scan finish in real time.
    bool waitForScan()
    {
        return QTest::qWaitFor([&] { return !connection.discovery().isScanning(); }, 10000);
    }
    // Moves `clock` on, which starts a scan when one is due, and lets that scan finish.
    bool scanAfter(ManualClock& clock, double seconds)
    {
        clock.advance(seconds);
        return waitForScan();
    }
    int found() { return int(connection.discovery().consoles().size()); }

    EosConnection connection;
    EosConnection::Configuration kept;
    int adoptions = 0;
};

PretendConsole::Options named(const char* consoleID, const char* showName = "Pretend Show")
{
    PretendConsole::Options options;
    options.consoleID = QString::fromLatin1(consoleID);
    options.showName = QString::fromLatin1(showName);
    return options;
}

// A /29 whose five other addresses are all on the pretend host, so that every probe of a
// sweep is answered or refused at once.
std::unique_ptr<NetNamespace> smallNetwork(const QString& name, const QString& base)
{
    QStringList peers;
    for (int host = 2; host <= 6; ++host)
        peers << base + QString::number(host);
    return network(name, base + u'1', peers, 29);
}

} // namespace

class EosTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void sweepAddresses_data();
    void sweepAddresses();
    void consoleFromReply_data();
    void consoleFromReply();
    void mergeJoinsDiscoveryAndProbesOfTheSameHostAndInterface();
    void findsConsolesByBroadcastAndBySweep();
    void probeEndsAtARefusalOrAtItsTimeOut();
    void stopCancelsARunningScan();
    void connectsToTheTypedAddress();
    void adoptsTheOnlyConsoleAndFollowsItsNewAddress();
    void forgottenConsoleReturnsOnlyBySearchNow();
    void sweepsAtMostEvery120SecondsAndNeedsAnIdentityForTwo();
};

void EosTest::sweepAddresses_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<int>("prefixLength");
    QTest::addColumn<QString>("range");     // count first..last
    QTest::addColumn<QStringList>("hosts"); // "+" probed, "-" not probed
    const auto row = [](const char* name, const char* address, int prefix, const char* range,
                        const char* hosts) {
        QTest::newRow(name) << address << prefix << range
                            << QString::fromLatin1(hosts).split(u' ', Qt::SkipEmptyParts);
    };
    row("/24: its own subnet without itself", "192.168.1.10", 24, "253 192.168.1.1..192.168.1.254",
        "+192.168.1.9 +192.168.1.11 -192.168.1.0 -192.168.1.255 -192.168.100.1");
    row("/16: the .100 range first, then its own /22", "10.88.4.1", 16,
        "1275 10.88.100.1..10.88.7.254",
        "+10.88.100.254 +10.88.4.2 +10.88.6.9 -10.88.3.254 -10.88.8.1 -10.88.50.5 -10.88.100.0");
    row("/16 inside the .100 range: each address once", "10.5.100.50", 16,
        "1021 10.5.100.1..10.5.103.254", "+10.5.101.1 -10.5.104.1");
    row("/20: capped to the /22 that holds it, no .100 range", "172.16.9.200", 20,
        "1021 172.16.8.1..172.16.11.254", "+172.16.11.1 -172.16.12.1 -172.16.100.1");
    row("/8: .100 range of its first two octets and its /22", "10.20.30.40", 8,
        "1275 10.20.100.1..10.20.31.254", "+10.20.28.1 -10.21.100.1");
    row("/30: the one other host", "10.0.0.1", 30, "1 10.0.0.2..10.0.0.2", "");
    row("/31: nothing to probe", "10.0.0.0", 31, "0 ..", "");
}

void EosTest::sweepAddresses()
{
    QFETCH(QString, address);
    QFETCH(int, prefixLength);
    QFETCH(QStringList, hosts);
    const ScanTarget on = target(address, prefixLength);
    const std::vector<std::uint32_t> list = EosDiscovery::sweepAddresses(on);
    const std::set<std::uint32_t> unique(list.begin(), list.end());
    QCOMPARE(unique.size(), list.size());
    QVERIFY(!unique.contains(on.address));
    const auto text = [&](std::size_t at) {
        return at < list.size() ? QHostAddress(list[at]).toString() : QString();
    };
    QTEST(QStringLiteral("%1 %2..%3").arg(list.size()).arg(text(0), text(list.size() - 1)),
          "range");
    for (const QString& host : hosts)
        QVERIFY2(unique.contains(ip(host.mid(1))) == host.startsWith(u'+'), qPrintable(host));
}

void EosTest::consoleFromReply_data()
{
    QTest::addColumn<OSCMessage>("reply");
    QTest::addColumn<QString>("fields"); // device name|console ID|version; "none": no console
    const auto row = [](const char* name, std::string address, std::vector<OSCArgument> arguments,
                        const char* fields) {
        QTest::newRow(name) << OSCMessage{std::move(address), std::move(arguments)} << fields;
    };
    // A full reply and one with a single argument come from the pretend consoles of the scan
    // test below.
    const std::string reply = "/etc/discovery/reply";
    row("numbers become text", reply, {3037, 1.1f, 42, 0.5f}, "1.1|42|0.5");
    row("a blob is absent", reply, {3037, QByteArray("\x01"), std::string("ID")}, "|ID|");
    row("two arguments: a name only", "/etc/discovery/answer", {3037, std::string("Gio")}, "Gio||");
    row("our own request heard back", "/etc/discovery/request", {50000, std::string("Orvane")},
        "none");
    row("another address", "/eos/out/ping", {3037, std::string("x")}, "none");
}

void EosTest::consoleFromReply()
{
    QFETCH(OSCMessage, reply);
    const auto found = EosDiscovery::consoleFromReply(reply, QStringLiteral("10.0.0.9"),
                                                      target("10.0.0.1", 24, NetworkKind::wifi));
    if (found) {
        QCOMPARE(found->host, QStringLiteral("10.0.0.9"));
        QCOMPARE(found->interfaceName, QStringLiteral("eth0"));
        QCOMPARE(found->network, NetworkKind::wifi);
        QCOMPARE(found->showName, std::nullopt);
    }
    QTEST(found ? QStringList({found->deviceName.value_or(""), found->consoleID.value_or(""),
                               found->version.value_or("")})
                      .join(u'|')
                : QStringLiteral("none"),
          "fields");
}

void EosTest::mergeJoinsDiscoveryAndProbesOfTheSameHostAndInterface()
{
    const auto other = NetworkKind::other;
    const DiscoveredConsole replied{"10.0.0.5", "eth0", other, {}, "3.2", "Ion", "ION-1"};
    DiscoveredConsole repliedOnWifi = replied;
    repliedOnWifi.interfaceName = QStringLiteral("wlan0");
    const DiscoveredConsole probed{"10.0.0.5", "eth0", other, "Hamlet", "3.2.0.1"};
    const DiscoveredConsole probedOnly{"10.0.0.9", "eth0", other, "Lear"};

    const QList<DiscoveredConsole> joined =
        EosDiscovery::merge({replied, repliedOnWifi}, {probedOnly, probed});
    DiscoveredConsole both = replied;
    both.showName = probed.showName; // the reply's version stays
    QCOMPARE(joined, QList<DiscoveredConsole>({both, repliedOnWifi, probedOnly}));
    QCOMPARE(joined[0].id(), QStringLiteral("10.0.0.5%eth0"));
    QCOMPARE(joined[0].shownName(), QStringLiteral("Hamlet"));
    QCOMPARE(joined[1].shownName(), QStringLiteral("Ion"));
}

void EosTest::findsConsolesByBroadcastAndBySweep()
{
    auto lan =
        network("s24", "10.64.0.1", {"10.64.0.2", "10.64.0.200", "10.64.0.40", "10.64.0.50"});
    auto linkLocal = network("s24ll", "169.254.9.1", {"169.254.9.2"}, 16);
    QVERIFY(lan && linkLocal);
    // Only the /24 is listed: not loopback, not the link-local network beside it. A veth is
    // no wired or Wi-Fi network.
    const QByteArray name = lan->localInterface().toLatin1();
    const ScanTarget lan24{lan->localInterface(), NetworkKind::other, ip("10.64.0.1"), 0xFFFFFF00u,
                           int(::if_nametoindex(name.constData()))};
    QCOMPARE(EosDiscovery::currentInterfaces(), std::vector<ScanTarget>{lan24});
    QCOMPARE(QHostAddress(lan24.broadcastAddress()), address("10.64.0.255"));

    PretendConsole::Options twice; // answers every request twice
    twice.repliesPerRequest = 2;
    twice.deviceName = QStringLiteral("Booth Ion");
    twice.consoleID = QStringLiteral("ION-2");
    twice.showName = QStringLiteral("Macbeth");
    auto chatty = startConsole(lan.get(), "10.64.0.2", twice);
    PretendConsole::Options terse; // a reply with one argument, and no TCP to probe
    terse.replyArguments = 1;
    terse.listens = false;
    auto brief = startConsole(lan.get(), "10.64.0.50", terse);
    // Beyond the first 128 probes of the sweep: found only if probes are started as others end.
    auto quiet = startConsole(lan.get(), "10.64.0.200", tcpOnly("Tempest"));
    auto other = startConsole(lan.get(), "10.64.0.40", tcpOnly("", false));
    auto hidden = startConsole(linkLocal.get(), "169.254.9.2");

    ManualClock clock;
    EosDiscovery discovery(clock);
    int finished = 0;
    discovery.setOnScanFinished([&] { ++finished; });
    QSignalSpy scanning(&discovery, &EosDiscovery::isScanningChanged);

    // The broadcast alone lasts its 1.5 s, asks every 0.5 s at both broadcast addresses, and
    // lists each console that answers once.
    QElapsedTimer timer;
    timer.start();
    QVERIFY(discovery.scan(EosDiscovery::ScanKind::discovery));
    QVERIFY(discovery.isScanning());
    QVERIFY(!discovery.scan(EosDiscovery::ScanKind::sweep)); // one at a time
    QTRY_COMPARE(finished, 1);
    QVERIFY2(timer.elapsed() >= 1400 && timer.elapsed() < 2500,
             qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(scanning.count(), 2);
    QCOMPARE(
        discovery.lastScan().toMSecsSinceEpoch(),
        std::chrono::duration_cast<std::chrono::milliseconds>(clock.wallNow().time_since_epoch())
            .count());
    QVERIFY(chatty->discoveryRequests() >= 4);
    const QString on = lan->localInterface();
    DiscoveredConsole booth{"10.64.0.2", on,     NetworkKind::other, {}, twice.version,
                            "Booth Ion", "ION-2"};
    const DiscoveredConsole hostOnly{"10.64.0.50", on};
    QCOMPARE(byHost(discovery), QList<DiscoveredConsole>({booth, hostOnly}));

    // A sweep also finds the console that does not answer the broadcast, and joins what the
    // reply and the probe of the same console say.
    timer.start();
    QVERIFY(discovery.scan(EosDiscovery::ScanKind::sweep));
    QTRY_COMPARE_WITH_TIMEOUT(finished, 2, 10000);
    qInfo("sweep of a /24 took %lld ms", timer.elapsed());
    booth.showName = QStringLiteral("Macbeth");
    const DiscoveredConsole tempest{"10.64.0.200", on, NetworkKind::other, "Tempest",
                                    quiet->options().version};
    QCOMPARE(byHost(discovery), QList<DiscoveredConsole>({booth, tempest, hostOnly}));
    QCOMPARE(quiet->receivedAddresses(),
             (QStringList{"/eos/ping", "/eos/get/version", "/eos/reset"}));
    QVERIFY(other->connectionsAccepted() >= 1); // probed, and not taken for a console
    QCOMPARE(hidden->connectionsAccepted(), 0);
    QCOMPARE(hidden->discoveryRequests(), 0);
}

// A refused probe ends at once; a peer that takes the connection but never speaks Eos is given
// up only at the probe's 2 s time-out. Both end once, never from inside start(). (A console's
// answers are seen in the sweeps.)
void EosTest::probeEndsAtARefusalOrAtItsTimeOut()
{
    auto lan = network("probe", "10.63.0.1", {"10.63.0.2"});
    QVERIFY(lan);
    auto peer = startConsole(lan.get(), "10.63.0.2", tcpOnly("", false));
    ManualClock clock;
    const QList<std::optional<EosProbe::Result>> nothing{std::nullopt};
    for (const std::uint16_t port : {std::uint16_t(EosProbe::kPort + 1), EosProbe::kPort}) {
        EosProbe probe(clock);
        QList<std::optional<EosProbe::Result>> results;
        probe.start(address("10.63.0.2").toIPv4Address(), port,
                    EosDiscovery::currentInterfaces().at(0),
                    [&](std::optional<EosProbe::Result> got) { results << got; });
        QVERIFY(results.isEmpty());
        if (port == EosProbe::kPort) {
            QTRY_COMPARE(peer->connectionsAccepted(), 1);
            QTest::qWait(100);
            clock.advance(1.9);
            QVERIFY(results.isEmpty());
            clock.advance(0.1);
        }
        QTRY_COMPARE(results, nothing); // the manual clock stands still while it waits
        QVERIFY(probe.isFinished());
        clock.advance(5.0);
        QTest::qWait(50);
        QCOMPARE(results.size(), 1);
    }
}

// Stop cancels a running sweep at once and publishes nothing. On a /30 a sweep lasts as long
// as the broadcast exchange, so a stopped sweep that went on would publish before the
// discovery scan started after it.
void EosTest::stopCancelsARunningScan()
{
    auto lan = network("stop", "10.65.0.1", {"10.65.0.2"}, 30);
    QVERIFY(lan);
    auto console = startConsole(lan.get(), "10.65.0.2", tcpOnly());
    EosDiscovery discovery;
    int finished = 0;
    discovery.setOnScanFinished([&] { ++finished; });
    QVERIFY(discovery.scan(EosDiscovery::ScanKind::sweep));
    QTRY_COMPARE(console->connectionsAccepted(), 1);
    QElapsedTimer timer;
    timer.start();
    discovery.stop();
    QVERIFY(timer.elapsed() < 500); // the probes end at once
    QVERIFY(!discovery.isScanning());
    QVERIFY(discovery.scan(EosDiscovery::ScanKind::discovery));
    QTRY_COMPARE(finished, 1);
    QVERIFY(discovery.consoles().isEmpty());
}

// OSC 1.0 on its port, with blanks around the typed host, after a port where nothing listens.
// (OSC 1.1 on 3037 is what the whole application's run with the pretend console connects to.)
void EosTest::connectsToTheTypedAddress()
{
    auto console = startConsole(nullptr, "127.0.0.1", named("ION", "Hamlet"));
    Link link;
    QCOMPARE(link.connection.statusText(), QStringLiteral("Off")); // never configured
    link.configure(false, QStringLiteral("127.0.0.1"), 3033, OSCFraming::lengthPrefixed);
    QTRY_COMPARE(link.connection.statusText(), QStringLiteral("Connection refused"));
    QCOMPARE(link.connection.advice(),
             QStringLiteral("The console is there but isn't accepting OSC. Turn on Third Party OSC "
                            "in Setup › Device Settings › Network › Interface Protocols, and check "
                            "the port."));
    // A failure of no known kind is told in the system's own words.
    const OSCStream::Status other{StatusKind::retrying, {Kind::other, "Too many open files"}, 3};
    QCOMPARE(EosConnection::describe(link.kept, other, false, {}).status,
             QStringLiteral("Too many open files"));
    int packets = 0;
    link.connection.setOnPacket([&](const QByteArray&, const QString&) { ++packets; });
    link.configure(false, QStringLiteral("  127.0.0.1 "), 3032, OSCFraming::lengthPrefixed);
    QTRY_COMPARE(link.connection.statusText(), QStringLiteral("Connected"));
    QVERIFY(link.connection.advice().isEmpty());
    // On ready the link asks for the console's state once; the answers come back. (What they
    // say reaches the show in the show input test.)
    QTRY_VERIFY(packets > 0);
    QCOMPARE(console->receivedAddresses(), QStringList{"/eos/reset"});

    // A host of spaces stops the link; switched off, it says so before anything else.
    QTRY_COMPARE(console->connectionCount(), 1);
    link.change([](auto& c) { c.host = QStringLiteral("   "); });
    QCOMPARE(link.connection.streamStatus().kind, StatusKind::idle);
    QCOMPARE(link.connection.statusText(), QStringLiteral("No console address"));
    QTRY_COMPARE(console->connectionCount(), 0);
    link.change([](auto& c) { c.enabled = false; });
    QCOMPARE(link.connection.statusText(), QStringLiteral("Off"));
}

void EosTest::adoptsTheOnlyConsoleAndFollowsItsNewAddress()
{
    auto lan = smallNetwork("follow", "10.71.0.");
    QVERIFY(lan);
    auto ionA = startConsole(lan.get(), "10.71.0.3", named("ION-A", "Othello"));
    ManualClock clock;
    Link link(clock);
    link.configure(true, QString());
    QCOMPARE(link.connection.statusText(), QStringLiteral("Searching…"));
    clock.advance(1.0); // the first tick sweeps
    QVERIFY(link.connection.discovery().isScanning());
    QVERIFY(link.waitForScan());
    QCOMPARE(link.kept.host, QStringLiteral("10.71.0.3"));
    QCOMPARE(link.kept.consoleID, std::optional<QString>("ION-A"));
    QCOMPARE(link.kept.consoleName, std::optional<QString>("Othello"));
    QTRY_VERIFY(link.connection.isConnected());

    // While the link answers, scans neither start by themselves nor move it, even when the
    // stored identity names another console and "search now" pairs with every console found.
    clock.advance(3.0);
    QVERIFY(!link.connection.discovery().isScanning());
    auto ionB = startConsole(lan.get(), "10.71.0.4", named("ION-B"));
    link.change([](auto& c) { c.consoleID = QStringLiteral("ION-B"); });
    link.connection.searchNow();
    const QString duringScan = link.connection.statusText();
    QVERIFY(link.waitForScan());
    QCOMPARE(duringScan, QStringLiteral("Connected"));
    QCOMPARE(link.kept.host, QStringLiteral("10.71.0.3"));
    QVERIFY(link.connection.isConnected());
    ionB.reset();
    link.change([](auto& c) { c.consoleID = QStringLiteral("ION-A"); });

    // The console comes back on another address: found again by its identity. (The host's
    // first address stays: removing it would take the others with it.)
    QString error;
    QVERIFY(lan->removePeerAddress(address("10.71.0.3"), 29, &error));
    QVERIFY2(ionA->moveTo(address("10.71.0.5"), &error), qPrintable(error));
    // Its old address is gone, so nothing tells the link: it notices the silence.
    clock.advance(19.0);
    QVERIFY(link.connection.isConnected());
    for (int step = 0; step < 20 && link.connection.isConnected(); ++step)
        clock.advance(0.5);
    QCOMPARE(link.connection.statusText(), QStringLiteral("Stopped responding"));
    QVERIFY(link.scanAfter(clock, 1.0));
    QCOMPARE(link.kept.host, QStringLiteral("10.71.0.5"));
    QTRY_COMPARE(link.connection.statusText(), QStringLiteral("Connected"));
}

void EosTest::forgottenConsoleReturnsOnlyBySearchNow()
{
    auto lan = smallNetwork("forget", "10.73.0.");
    QVERIFY(lan);
    auto ion = startConsole(lan.get(), "10.73.0.2", named("ION-A"));
    // Another console answers at the address the link was set to (loopback, which no scan
    // covers), but only over a wired interface, which this machine lacks: the link cannot
    // reach it, searches, and finds its console elsewhere.
    auto old = startConsole(nullptr, "127.0.0.1");
    ManualClock clock;
    Link link(clock);
    link.change([](auto& c) {
        c = {true, true, "127.0.0.1", 3037, OSCFraming::slip, NetworkKind::wired, "ION-A"};
    });
    QTRY_COMPARE(link.connection.streamStatus().kind, StatusKind::retrying);
    QVERIFY(link.scanAfter(clock, 1.0));
    QCOMPARE(link.adoptions, 1);
    QCOMPARE(link.kept.host, QStringLiteral("10.73.0.2"));
    QCOMPARE(link.kept.network, std::nullopt); // a veth is no wired or Wi-Fi network
    QTRY_VERIFY(link.connection.isConnected());
    QTRY_COMPARE(ion->connectionCount(), 1);
    // Host and network changed together: no connect ever went to the old address unbound.
    QTest::qWait(100);
    QCOMPARE(old->connectionsAccepted(), 0);
    old.reset();

    link.connection.forget(link.connection.discovery().consoles().front());
    QCOMPARE(link.kept.host, QString());
    QCOMPARE(link.kept.consoleID, std::nullopt);
    QVERIFY(!link.connection.isConnected());
    QVERIFY(link.scanAfter(clock, 1.0));
    QCOMPARE(link.kept.host, QString());

    // "Search now", then the link goes off before the sweep ends: the pairing is dropped with
    // it, so the automatic scans after switching on again leave the forgotten console alone.
    link.connection.searchNow();
    QVERIFY(link.connection.discovery().isScanning());
    link.change([](auto& c) { c.enabled = false; });
    QVERIFY(!link.connection.discovery().isScanning());
    link.change([](auto& c) { c.enabled = true; });
    clock.advance(1.0);
    QVERIFY(link.connection.discovery().isScanning());
    QVERIFY(link.waitForScan());
    QCOMPARE(link.found(), 1);
    QCOMPARE(link.kept.host, QString());
    QCOMPARE(link.adoptions, 1);
    QCOMPARE(link.connection.statusText(), QStringLiteral("1 consoles found"));

    // Turning automatic connection off stops the search; search now still pairs.
    link.change([](auto& c) { c.autoConnect = false; });
    QVERIFY(!link.connection.isSearching());
    clock.advance(5.0);
    QVERIFY(!link.connection.discovery().isScanning());
    link.change([](auto& c) { c.enabled = false; });
    link.connection.searchNow();
    QVERIFY(link.kept.enabled);
    QVERIFY(link.waitForScan());
    QCOMPARE(link.kept.host, QStringLiteral("10.73.0.2"));
    QCOMPARE(link.connection.forgotten(), std::nullopt);
    QTRY_VERIFY(link.connection.isConnected());
}

void EosTest::sweepsAtMostEvery120SecondsAndNeedsAnIdentityForTwo()
{
    auto lan = smallNetwork("spacing", "10.74.0.");
    QVERIFY(lan);
    // Two consoles that only a sweep finds, and none is adopted without an identity.
    PretendConsole::Options quiet;
    quiet.answersDiscovery = false;
    auto first = startConsole(lan.get(), "10.74.0.2", quiet);
    quiet.showName = QStringLiteral("Macbeth");
    auto second = startConsole(lan.get(), "10.74.0.3", quiet);
    ManualClock clock;
    Link link(clock);
    link.configure(true, QString());
    QVERIFY(link.scanAfter(clock, 1.0)); // t = 1: the first scan sweeps
    QCOMPARE(link.found(), 2);
    QCOMPARE(link.connection.statusText(), QStringLiteral("2 consoles found"));
    clock.advance(1.0); // t = 2: broadcast only; while it runs, the last count gives way
    const QString duringScan = link.connection.statusText();
    QVERIFY(link.waitForScan());
    QCOMPARE(duringScan, QStringLiteral("Searching…"));
    QCOMPARE(link.found(), 0);
    QCOMPARE(link.connection.statusText(), QStringLiteral("No console found"));
    // t = 3 starts a broadcast scan; later ticks find it running
    QVERIFY(link.scanAfter(clock, 118.0));
    QCOMPARE(link.found(), 0);
    QVERIFY(link.scanAfter(clock, 1.0)); // t = 121: 120 s after the last sweep
    QCOMPARE(link.found(), 2);
    QCOMPARE(link.kept.host, QString());
    QCOMPARE(first->connectionsAccepted(), 2);
    // With the second console's shown name stored, the next sweep picks it.
    link.change([](auto& c) { c.consoleName = QStringLiteral("Macbeth"); });
    QVERIFY(link.scanAfter(clock, 119.0)); // t = 122 starts a broadcast scan, as above
    QVERIFY(link.scanAfter(clock, 1.0));   // t = 241: a sweep
    QCOMPARE(link.kept.host, QStringLiteral("10.74.0.3"));
    QTRY_VERIFY(link.connection.isConnected());
}

// Runs in a network namespace of its own, entered before any thread starts so that every thread
// shares it. Without root there is none, and the tests are skipped.
int main(int argc, char** argv)
{
    QString error;
    const bool isolated = NetNamespace::isolateThisProcess(&error);
    QCoreApplication app(argc, argv);
    if (!isolated && ::geteuid() != 0) {
        qInfo("SKIP: network namespaces need root; run the suite with scripts/offline");
        return 0;
    }
    if (!isolated) {
        qCritical("%s", qPrintable(error));
        return 1;
    }
    EosTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "EosTest.moc"
