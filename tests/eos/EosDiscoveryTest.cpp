// Console discovery on real networks: pretend hosts in network namespaces joined to the test's
// own namespace by veth pairs, pretend consoles on their addresses.
#include "eos/EosDiscovery.h"
#include "base/ManualClock.h"
#include "eos/EosProbe.h"
#include "peers/PretendConsole.h"
#include "support/NetNamespace.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTest>

#include <unistd.h>

using namespace orvane;

namespace {

QString isolationError;
bool isolated = false;

QHostAddress address(const char* text)
{
    return QHostAddress(QString::fromLatin1(text));
}

std::optional<ScanTarget> targetNamed(const QString& name)
{
    for (const ScanTarget& target : EosDiscovery::currentInterfaces()) {
        if (target.name == name)
            return target;
    }
    return std::nullopt;
}

} // namespace

class EosDiscoveryTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void discoveryListsEachConsoleOnce();
    void probeTellsConsolesFromOtherServices_data();
    void probeTellsConsolesFromOtherServices();
    void listsUsableInterfacesAndSweepsA24();
    void stopCancelsARunningScan();
    void sweepOnA16ProbesTheHundredRangeAndItsOwn22();

private:
    // A pretend console on `at`, with its sockets inside `host`.
    std::unique_ptr<PretendConsole> startConsole(NetNamespace& host, const char* at,
                                                 PretendConsole::Options options = {},
                                                 Clock& clock = Clock::system());
};

void EosDiscoveryTest::initTestCase()
{
    if (!isolated && ::geteuid() != 0)
        QSKIP("network namespaces need root; run the suite with scripts/offline");
    QVERIFY2(isolated, qPrintable(isolationError));
}

std::unique_ptr<PretendConsole> EosDiscoveryTest::startConsole(NetNamespace& host, const char* at,
                                                               PretendConsole::Options options,
                                                               Clock& clock)
{
    options.address = address(at);
    auto console = std::make_unique<PretendConsole>(options, clock);
    console->setSocketFactory([&host](int type) { return host.socket(type); });
    QString error;
    if (!console->start(&error))
        qWarning("pretend console: %s", qPrintable(error));
    return console;
}

void EosDiscoveryTest::discoveryListsEachConsoleOnce()
{
    QString error;
    auto lan = NetNamespace::create("disc", address("10.62.0.1"), address("10.62.0.2"), 24, &error);
    QVERIFY2(lan, qPrintable(error));
    QVERIFY(lan->addPeerAddress(address("10.62.0.21"), 24, &error));
    QVERIFY(lan->addPeerAddress(address("10.62.0.22"), 24, &error));
    PretendConsole::Options twice;
    twice.repliesPerRequest = 2;
    twice.deviceName = QStringLiteral("Booth Ion");
    twice.consoleID = QStringLiteral("ION-0021");
    auto chatty = startConsole(*lan, "10.62.0.21", twice);
    PretendConsole::Options terse;
    terse.replyArguments = 1;
    auto brief = startConsole(*lan, "10.62.0.22", terse);
    PretendConsole::Options quiet;
    quiet.answersDiscovery = false;
    auto silent = startConsole(*lan, "10.62.0.2", quiet);

    const auto target = targetNamed(lan->localInterface());
    QVERIFY(target);
    // The exchange blocks; the consoles answer from this thread's event loop meanwhile.
    std::vector<DiscoveredConsole> found;
    std::atomic_bool done = false;
    std::thread worker([&] {
        found = EosDiscovery::discover(*target);
        done = true;
    });
    QElapsedTimer timer;
    timer.start();
    QTRY_VERIFY_WITH_TIMEOUT(done, 5000);
    worker.join();
    QVERIFY2(timer.elapsed() >= 1400 && timer.elapsed() < 2500,
             qPrintable(QString::number(timer.elapsed())));

    QCOMPARE(found.size(), std::size_t(2));
    std::sort(found.begin(), found.end(), [](auto& a, auto& b) { return a.host < b.host; });
    QCOMPARE(found[0].host, QStringLiteral("10.62.0.21"));
    QCOMPARE(found[0].interfaceName, lan->localInterface());
    QCOMPARE(found[0].deviceName, std::optional<QString>(QStringLiteral("Booth Ion")));
    QCOMPARE(found[0].consoleID, std::optional<QString>(QStringLiteral("ION-0021")));
    QCOMPARE(found[0].version, std::optional<QString>(twice.version));
    QCOMPARE(found[0].showName, std::nullopt);
    QCOMPARE(found[1].host, QStringLiteral("10.62.0.22"));
    QCOMPARE(found[1].deviceName, std::nullopt);
    QCOMPARE(found[1].consoleID, std::nullopt);
    // The request went out more than once (every 0.5 s), to both broadcast addresses.
    QVERIFY(chatty->discoveryRequests() >= 4);
    QCOMPARE(silent->discoveryRequests(), 0);
}

void EosDiscoveryTest::probeTellsConsolesFromOtherServices_data()
{
    QTest::addColumn<QString>("peer"); // "console", "plain text" or "nobody"
    QTest::addColumn<bool>("isEos");
    QTest::addColumn<bool>("waitsForTimeout");

    QTest::newRow("Eos console") << "console" << true << false;
    QTest::newRow("TCP peer that never speaks Eos") << "plain text" << false << true;
    QTest::newRow("nobody listening") << "nobody" << false << false;
}

void EosDiscoveryTest::probeTellsConsolesFromOtherServices()
{
    QFETCH(QString, peer);
    QFETCH(bool, isEos);
    QFETCH(bool, waitsForTimeout);

    QString error;
    auto lan =
        NetNamespace::create("probe", address("10.63.0.1"), address("10.63.0.2"), 24, &error);
    QVERIFY2(lan, qPrintable(error));
    PretendConsole::Options options;
    options.speaksEos = peer == u"console";
    options.showName = QStringLiteral("Twelfth Night");
    std::unique_ptr<PretendConsole> console;
    if (peer != u"nobody")
        console = startConsole(*lan, "10.63.0.2", options);
    const auto via = targetNamed(lan->localInterface());
    QVERIFY(via);

    ManualClock clock;
    EosProbe probe(clock);
    std::optional<std::optional<EosProbe::Result>> result;
    probe.start(address("10.63.0.2").toIPv4Address(), EosProbe::kPort, *via,
                [&](std::optional<EosProbe::Result> got) {
                    QVERIFY(!result); // once only
                    result = got;
                });
    QVERIFY(!result); // never from inside start()
    if (waitsForTimeout) {
        QTRY_COMPARE(console->connectionsAccepted(), 1);
        QTest::qWait(100);
        QVERIFY(!result);
        clock.advance(1.9);
        QVERIFY(!result);
        clock.advance(0.1);
        QVERIFY(result);
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(result.has_value(), 3000);
    }
    QCOMPARE(result->has_value(), isEos);
    if (isEos) {
        QCOMPARE((*result)->showName, std::optional<QString>(QStringLiteral("Twelfth Night")));
        QCOMPARE((*result)->version, std::optional<QString>(options.version));
        QCOMPARE(console->receivedAddresses(),
                 (QStringList{"/eos/ping", "/eos/get/version", "/eos/reset"}));
    }
    clock.advance(5.0);
    QTest::qWait(50);
    QVERIFY(probe.isFinished());
}

// Only the /24 is listed and swept: not loopback, not the link-local network beside it.
void EosDiscoveryTest::listsUsableInterfacesAndSweepsA24()
{
    QString error;
    auto lan = NetNamespace::create("s24", address("10.64.0.1"), address("10.64.0.2"), 24, &error);
    QVERIFY2(lan, qPrintable(error));
    auto linkLocal =
        NetNamespace::create("s24ll", address("169.254.9.1"), address("169.254.9.2"), 16, &error);
    QVERIFY2(linkLocal, qPrintable(error));
    for (const char* extra : {"10.64.0.30", "10.64.0.40"})
        QVERIFY2(lan->addPeerAddress(address(extra), 24, &error), qPrintable(error));
    const std::vector<ScanTarget> targets = EosDiscovery::currentInterfaces();
    QCOMPARE(targets.size(), std::size_t(1));
    QCOMPARE(targets[0].name, lan->localInterface());
    QCOMPARE(QHostAddress(targets[0].address), address("10.64.0.1"));
    QCOMPARE(targets[0].netmask, 0xFFFFFF00u);
    QCOMPARE(QHostAddress(targets[0].broadcastAddress()), address("10.64.0.255"));
    QVERIFY(targets[0].index > 0);
    QCOMPARE(targets[0].network, NetworkKind::other); // a veth is virtual

    PretendConsole::Options answering;
    answering.deviceName = QStringLiteral("Booth Ion");
    answering.consoleID = QStringLiteral("ION-2");
    answering.showName = QStringLiteral("Macbeth");
    auto answers = startConsole(*lan, "10.64.0.2", answering);
    PretendConsole::Options tcpOnly;
    tcpOnly.answersDiscovery = false;
    tcpOnly.showName = QStringLiteral("Tempest");
    auto quiet = startConsole(*lan, "10.64.0.30", tcpOnly);
    PretendConsole::Options notEos;
    notEos.answersDiscovery = false;
    notEos.speaksEos = false;
    auto other = startConsole(*lan, "10.64.0.40", notEos);
    auto hidden = startConsole(*linkLocal, "169.254.9.2");

    ManualClock clock;
    EosDiscovery discovery(clock);
    discovery.setProbeConcurrency(300);
    int finished = 0;
    discovery.setOnScanFinished([&] { ++finished; });
    QSignalSpy scanning(&discovery, &EosDiscovery::isScanningChanged);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(discovery.scan(EosDiscovery::ScanKind::sweep));
    QVERIFY(discovery.isScanning());
    QVERIFY(!discovery.scan(EosDiscovery::ScanKind::discovery)); // one at a time
    QTRY_COMPARE_WITH_TIMEOUT(finished, 1, 10000);
    qInfo("sweep of a /24 took %lld ms", timer.elapsed());
    QVERIFY(!discovery.isScanning());
    QCOMPARE(scanning.count(), 2);
    QCOMPARE(
        discovery.lastScan().toMSecsSinceEpoch(),
        std::chrono::duration_cast<std::chrono::milliseconds>(clock.wallNow().time_since_epoch())
            .count());

    const QList<DiscoveredConsole> found = discovery.consoles();
    QCOMPARE(found.size(), 2);
    // Found by its reply and by a probe: one entry with what each knows.
    QCOMPARE(found[0].host, QStringLiteral("10.64.0.2"));
    QCOMPARE(found[0].deviceName, std::optional<QString>(QStringLiteral("Booth Ion")));
    QCOMPARE(found[0].consoleID, std::optional<QString>(QStringLiteral("ION-2")));
    QCOMPARE(found[0].showName, std::optional<QString>(QStringLiteral("Macbeth")));
    // Answers only the probe.
    QCOMPARE(found[1].host, QStringLiteral("10.64.0.30"));
    QCOMPARE(found[1].interfaceName, lan->localInterface());
    QCOMPARE(found[1].showName, std::optional<QString>(QStringLiteral("Tempest")));
    QCOMPARE(found[1].version, std::optional<QString>(tcpOnly.version));
    QCOMPARE(found[1].consoleID, std::nullopt);
    QVERIFY(other->connectionsAccepted() >= 1); // probed, and not taken for a console
    QCOMPARE(hidden->connectionsAccepted(), 0);
    QCOMPARE(hidden->discoveryRequests(), 0);
    QVERIFY(answers->connectionsAccepted() >= 1);
    QVERIFY(quiet->connectionsAccepted() >= 1);
}

void EosDiscoveryTest::sweepOnA16ProbesTheHundredRangeAndItsOwn22()
{
    QString error;
    auto lan =
        NetNamespace::create("s16", address("10.88.4.1"), address("10.88.100.7"), 16, &error);
    QVERIFY2(lan, qPrintable(error));
    for (const char* extra : {"10.88.6.9", "10.88.50.5"})
        QVERIFY2(lan->addPeerAddress(address(extra), 16, &error), qPrintable(error));
    PretendConsole::Options tcpOnly;
    tcpOnly.answersDiscovery = false;
    auto inHundredRange = startConsole(*lan, "10.88.100.7", tcpOnly);
    auto inOwn22 = startConsole(*lan, "10.88.6.9", tcpOnly);
    auto elsewhere = startConsole(*lan, "10.88.50.5", tcpOnly);

    // Each probe of an address nobody holds keeps an ARP entry while the kernel asks for it
    // (three tries a second apart by default, longer than a probe's 2 s). The neighbour table
    // holds 1,024 entries for every namespace of the machine together, and beyond that it drops
    // the entries of real hosts too. One try per address and 256 probes at once keep the
    // unanswered entries well below that, even with other tests running beside this one.
    QFile solicit(
        QStringLiteral("/proc/sys/net/ipv4/neigh/%1/mcast_solicit").arg(lan->localInterface()));
    QVERIFY(solicit.open(QIODevice::WriteOnly));
    QVERIFY(solicit.write("1\n") == 2);
    solicit.close();
    EosDiscovery discovery;
    discovery.setProbeConcurrency(256);
    QSignalSpy finished(&discovery, &EosDiscovery::isScanningChanged);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(discovery.scan(EosDiscovery::ScanKind::sweep));
    QTRY_VERIFY_WITH_TIMEOUT(!discovery.isScanning(), 30000);
    qInfo("sweep of a /16 took %lld ms", timer.elapsed());

    QStringList hosts;
    for (const DiscoveredConsole& console : discovery.consoles())
        hosts << console.host;
    QCOMPARE(hosts, (QStringList{"10.88.100.7", "10.88.6.9"}));
    QCOMPARE(elsewhere->connectionsAccepted(), 0);
    QCOMPARE(inHundredRange->connectionsAccepted(), 1);
    QCOMPARE(inOwn22->connectionsAccepted(), 1);
}

// Stop cancels a running sweep at once and publishes nothing. On a /30 a sweep lasts as long
// as the broadcast exchange, so a stopped sweep that went on would publish before the
// discovery scan started after it.
void EosDiscoveryTest::stopCancelsARunningScan()
{
    QString error;
    auto lan = NetNamespace::create("stop", address("10.65.0.1"), address("10.65.0.2"), 30, &error);
    QVERIFY2(lan, qPrintable(error));
    PretendConsole::Options tcpOnly;
    tcpOnly.answersDiscovery = false;
    auto console = startConsole(*lan, "10.65.0.2", tcpOnly);
    EosDiscovery discovery;
    int finished = 0;
    discovery.setOnScanFinished([&] { ++finished; });
    QVERIFY(discovery.scan(EosDiscovery::ScanKind::sweep));
    QTRY_COMPARE_WITH_TIMEOUT(console->connectionsAccepted(), 1, 5000);
    QElapsedTimer timer;
    timer.start();
    discovery.stop();
    QVERIFY(timer.elapsed() < 500); // the probes end at once
    QVERIFY(!discovery.isScanning());
    QVERIFY(discovery.scan(EosDiscovery::ScanKind::discovery));
    QTRY_COMPARE_WITH_TIMEOUT(finished, 1, 5000);
    QVERIFY(discovery.consoles().isEmpty());
}

int main(int argc, char** argv)
{
    // Before any thread starts: threads made later share the private network.
    isolated = NetNamespace::isolateThisProcess(&isolationError);
    QCoreApplication app(argc, argv);
    EosDiscoveryTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "EosDiscoveryTest.moc"
