// Console discovery: its rules (which addresses a sweep probes, what a reply says, how a
// scan's parts are joined), then real networks: pretend hosts in network namespaces joined to
// the test's own namespace by veth pairs, pretend consoles on their addresses.
#include "eos/EosDiscovery.h"
#include "PretendNetwork.h"
#include "base/ManualClock.h"
#include "eos/EosProbe.h"

#include <QElapsedTimer>
#include <QSignalSpy>

#include <set>

using namespace orvane;
using namespace orvane::testing;

namespace {

PretendConsole::Options tcpOnly(const char* showName = "Pretend Show", bool speaksEos = true)
{
    PretendConsole::Options options;
    options.answersDiscovery = false;
    options.showName = QString::fromUtf8(showName);
    options.speaksEos = speaksEos;
    return options;
}

DiscoveredConsole consoleAt(const EosDiscovery& discovery, const char* host)
{
    for (const DiscoveredConsole& console : discovery.consoles()) {
        if (console.host == QLatin1String(host))
            return console;
    }
    return {};
}

QStringList sortedHosts(const EosDiscovery& discovery)
{
    QStringList hosts;
    for (const DiscoveredConsole& console : discovery.consoles())
        hosts << console.host;
    hosts.sort();
    return hosts;
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

DiscoveredConsole console(const char* host, const char* interfaceName)
{
    DiscoveredConsole made;
    made.host = QString::fromLatin1(host);
    made.interfaceName = QString::fromLatin1(interfaceName);
    return made;
}

} // namespace

class EosDiscoveryTest : public QObject {
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
};

void EosDiscoveryTest::sweepAddresses_data()
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

void EosDiscoveryTest::sweepAddresses()
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

void EosDiscoveryTest::consoleFromReply_data()
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

void EosDiscoveryTest::consoleFromReply()
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

void EosDiscoveryTest::mergeJoinsDiscoveryAndProbesOfTheSameHostAndInterface()
{
    DiscoveredConsole replied = console("10.0.0.5", "eth0");
    replied.deviceName = QStringLiteral("Ion");
    replied.consoleID = QStringLiteral("ION-1");
    replied.version = QStringLiteral("3.2");
    DiscoveredConsole repliedOnWifi = replied;
    repliedOnWifi.interfaceName = QStringLiteral("wlan0");
    DiscoveredConsole probed = console("10.0.0.5", "eth0");
    probed.showName = QStringLiteral("Hamlet");
    probed.version = QStringLiteral("3.2.0.1");
    DiscoveredConsole probedOnly = console("10.0.0.9", "eth0");
    probedOnly.showName = QStringLiteral("Lear");

    const QList<DiscoveredConsole> joined =
        EosDiscovery::merge({replied, repliedOnWifi}, {probedOnly, probed});
    DiscoveredConsole both = replied;
    both.showName = probed.showName; // the reply's version stays
    QCOMPARE(joined, QList<DiscoveredConsole>({both, repliedOnWifi, probedOnly}));
    QCOMPARE(joined[0].id(), QStringLiteral("10.0.0.5%eth0"));
    QCOMPARE(joined[0].shownName(), QStringLiteral("Hamlet"));
    QCOMPARE(joined[1].shownName(), QStringLiteral("Ion"));
}

void EosDiscoveryTest::findsConsolesByBroadcastAndBySweep()
{
    auto lan =
        network("s24", "10.64.0.1", {"10.64.0.2", "10.64.0.200", "10.64.0.40", "10.64.0.50"});
    auto linkLocal = network("s24ll", "169.254.9.1", {"169.254.9.2"}, 16);
    QVERIFY(lan && linkLocal);
    // Only the /24 is listed: not loopback, not the link-local network beside it.
    const std::vector<ScanTarget> targets = EosDiscovery::currentInterfaces();
    QCOMPARE(targets.size(), std::size_t(1));
    QCOMPARE(targets[0].name, lan->localInterface());
    QCOMPARE(QHostAddress(targets[0].address), address("10.64.0.1"));
    QCOMPARE(QHostAddress(targets[0].broadcastAddress()), address("10.64.0.255"));
    QVERIFY(targets[0].index > 0);
    QCOMPARE(targets[0].network, NetworkKind::other); // a veth is virtual

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
    QCOMPARE(sortedHosts(discovery), QStringList({"10.64.0.2", "10.64.0.50"}));
    QVERIFY(chatty->discoveryRequests() >= 4);
    const QString on = lan->localInterface();
    DiscoveredConsole booth{"10.64.0.2", on,     NetworkKind::other, {}, twice.version,
                            "Booth Ion", "ION-2"};
    QCOMPARE(consoleAt(discovery, "10.64.0.2"), booth);
    QCOMPARE(consoleAt(discovery, "10.64.0.50"), (DiscoveredConsole{"10.64.0.50", on}));

    // A sweep also finds the console that does not answer the broadcast, and joins what the
    // reply and the probe of the same console say.
    timer.start();
    QVERIFY(discovery.scan(EosDiscovery::ScanKind::sweep));
    QTRY_COMPARE_WITH_TIMEOUT(finished, 2, 10000);
    qInfo("sweep of a /24 took %lld ms", timer.elapsed());
    QCOMPARE(sortedHosts(discovery), QStringList({"10.64.0.2", "10.64.0.200", "10.64.0.50"}));
    booth.showName = QStringLiteral("Macbeth");
    QCOMPARE(consoleAt(discovery, "10.64.0.2"), booth);
    QCOMPARE(consoleAt(discovery, "10.64.0.200"),
             (DiscoveredConsole{"10.64.0.200", on, NetworkKind::other, "Tempest",
                                quiet->options().version}));
    QCOMPARE(quiet->receivedAddresses(),
             (QStringList{"/eos/ping", "/eos/get/version", "/eos/reset"}));
    QVERIFY(other->connectionsAccepted() >= 1); // probed, and not taken for a console
    QCOMPARE(hidden->connectionsAccepted(), 0);
    QCOMPARE(hidden->discoveryRequests(), 0);
}

// A refused probe ends at once; a peer that takes the connection but never speaks Eos is given
// up only at the probe's 2 s time-out. Both end once, never from inside start(). (A console's
// answers are seen in the sweeps.)
void EosDiscoveryTest::probeEndsAtARefusalOrAtItsTimeOut()
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
void EosDiscoveryTest::stopCancelsARunningScan()
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

int main(int argc, char** argv)
{
    return runIsolated<EosDiscoveryTest>(argc, argv);
}

#include "EosDiscoveryTest.moc"
