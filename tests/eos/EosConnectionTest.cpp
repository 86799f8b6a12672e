// The console link: where it goes, which found console it adopts and follows, and what it
// says. Real pretend consoles, on loopback or on pretend hosts in network namespaces.
#include "eos/EosConnection.h"
#include "base/ManualClock.h"
#include "peers/PretendConsole.h"
#include "support/NetNamespace.h"

#include <QSignalSpy>
#include <QTest>

#include <unistd.h>

using namespace orvane;
using Kind = OSCStream::Failure::Kind;

namespace {

QString isolationError;
bool isolated = false;

QHostAddress address(const char* text)
{
    return QHostAddress(QString::fromLatin1(text));
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
                             kept.enabled = true;
                             kept.host = adoption.host;
                             kept.network = adoption.network;
                             kept.consoleID = adoption.consoleID;
                             kept.consoleName = adoption.consoleName;
                             connection.apply(kept);
                         });
        QObject::connect(&connection, &EosConnection::consoleForgotten, &connection, [this] {
            kept.host.clear();
            kept.consoleID.reset();
            kept.consoleName.reset();
            connection.apply(kept);
        });
        QObject::connect(&connection, &EosConnection::turnedOn, &connection, [this] {
            kept.enabled = true;
            connection.apply(kept);
        });
        connection.discovery().setProbeConcurrency(300);
    }
    void configure(bool autoConnect, const QString& host, int port = 3037,
                   OSCFraming framing = OSCFraming::slip)
    {
        kept = EosConnection::Configuration{true, autoConnect, host, port, framing};
        connection.apply(kept);
    }
    // Changes the kept configuration as the settings window would, and applies it.
    template <class Change> void change(Change change)
    {
        change(kept);
        connection.apply(kept);
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

    EosConnection connection;
    EosConnection::Configuration kept;
    int adoptions = 0;
};

// A /24 with this namespace at `local` and a pretend host holding `peers`, or null.
std::unique_ptr<NetNamespace> network(const char* name, const char* local,
                                      std::initializer_list<const char*> peers)
{
    QString error;
    auto made = NetNamespace::create(QString::fromLatin1(name), address(local),
                                     address(*peers.begin()), 24, &error);
    for (auto peer = peers.begin() + 1; made && peer != peers.end(); ++peer) {
        if (!made->addPeerAddress(address(*peer), 24, &error))
            made.reset();
    }
    if (!made)
        qWarning("network %s: %s", name, qPrintable(error));
    return made;
}

} // namespace

class EosConnectionTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void describe_data();
    void describe();
    void connectsToTheTypedAddress_data();
    void connectsToTheTypedAddress();
    void adoptsTheOnlyConsoleAndFollowsItsNewAddress();
    void twoConsolesNeedAStoredIdentity();
    void forgottenConsoleReturnsOnlyBySearchNow();
    void adoptionNeverConnectsToTheOldAddress();
    void searchSweepsAtMostEvery120Seconds();

private:
    std::unique_ptr<PretendConsole> startConsole(NetNamespace* host, const char* at,
                                                 PretendConsole::Options options = {});
};

void EosConnectionTest::initTestCase()
{
    if (!isolated && ::geteuid() != 0)
        QSKIP("network namespaces need root; run the suite with scripts/offline");
    QVERIFY2(isolated, qPrintable(isolationError));
}

std::unique_ptr<PretendConsole> EosConnectionTest::startConsole(NetNamespace* host, const char* at,
                                                                PretendConsole::Options options)
{
    options.address = address(at);
    auto console = std::make_unique<PretendConsole>(options);
    if (host)
        console->setSocketFactory([host](int type) { return host->socket(type); });
    QString error;
    if (!console->start(&error))
        qWarning("pretend console: %s", qPrintable(error));
    return console;
}

void EosConnectionTest::describe_data()
{
    QTest::addColumn<QString>("link"); // "none" (never configured), "off", "auto" or "manual"
    QTest::addColumn<QString>("host");
    QTest::addColumn<OSCStream::Status>("status");
    QTest::addColumn<bool>("isScanning");
    QTest::addColumn<int>("found"); // -1: no scan has finished
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("advice");
    const auto row = [](const char* name, const char* link, const char* host,
                        OSCStream::Status status, bool isScanning, int found, const char* text,
                        QString advice = {}) {
        QTest::newRow(name) << link << host << status << isScanning << found << text << advice;
    };
    const OSCStream::Status idle;
    const OSCStream::Status ready{OSCStream::Status::Kind::ready, {}, 0};
    const auto retrying = [](Kind kind, const QString& text = {}) {
        return OSCStream::Status{OSCStream::Status::Kind::retrying, {kind, text}, 3};
    };
    const QString sameNetwork = QStringLiteral(
        "Check that the console is on and connected to the same network as this computer.");

    row("never configured", "none", "", idle, false, -1, "Off");
    row("off, even with a live stream", "off", "10.0.0.5", ready, true, 2, "Off");
    row("no host, scanning", "auto", "", idle, true, 3, "Searching…");
    row("no host, consoles found", "auto", "", idle, false, 3, "3 consoles found");
    row("no host, nothing found", "auto", "", idle, false, 0, "No console found");
    row("no host, automatic off", "manual", " ", idle, false, -1, "No console address");
    row("connecting", "manual", "10.0.0.5", {OSCStream::Status::Kind::connecting, {}, 0}, false, -1,
        "Connecting…");
    row("host wins over a running scan", "auto", "10.0.0.5", ready, true, 0, "Connected");
    row("refused", "manual", "10.0.0.5", retrying(Kind::refused), false, -1, "Connection refused",
        "The console is there but isn't accepting OSC. Turn on Third Party OSC in Setup › Device "
        "Settings › Network › Interface Protocols, and check the port.");
    row("no answer", "manual", "10.0.0.5", retrying(Kind::noAnswer), false, -1, "No answer",
        sameNetwork);
    row("unreachable", "manual", "10.0.0.5", retrying(Kind::unreachable), false, -1,
        "Network unreachable", sameNetwork);
    row("unknown host", "manual", "ion.local", retrying(Kind::unknownHost), false, -1,
        "Address not found", "Check the console's address.");
    row("closed", "manual", "10.0.0.5", retrying(Kind::closedByPeer), false, -1,
        "Connection closed");
    row("went quiet", "manual", "10.0.0.5", retrying(Kind::wentQuiet), false, -1,
        "Stopped responding", "The console stopped answering. Orvane will keep trying.");
    row("invalid port", "manual", "10.0.0.5", retrying(Kind::invalidPort), false, -1,
        "Invalid port", "Choose a port between 1 and 65535.");
    row("wrong protocol", "manual", "10.0.0.5", retrying(Kind::wrongProtocol), false, -1,
        "Wrong protocol",
        "The console is sending a different OSC format. Use OSC 1.1 with port 3037, or OSC 1.0 "
        "with port 3032.");
    row("other failure: the system's text", "manual", "10.0.0.5",
        retrying(Kind::other, "Too many open files"), false, -1, "Too many open files");
}

void EosConnectionTest::describe()
{
    QFETCH(QString, link);
    QFETCH(QString, host);
    QFETCH(OSCStream::Status, status);
    QFETCH(bool, isScanning);
    QFETCH(int, found);
    QFETCH(QString, text);
    QFETCH(QString, advice);

    std::optional<EosConnection::Configuration> configuration;
    if (link != u"none")
        configuration = EosConnection::Configuration{
            link != u"off", link != u"manual", host, 3037, OSCFraming::slip, std::nullopt};
    const auto described = EosConnection::describe(
        configuration, status, isScanning, found < 0 ? std::nullopt : std::optional<int>(found));
    QCOMPARE(described.status, text);
    QCOMPARE(described.advice, advice);
}

void EosConnectionTest::connectsToTheTypedAddress_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<int>("port");
    QTest::addColumn<OSCFraming>("framing");
    QTest::addColumn<QString>("text");

    QTest::newRow("OSC 1.1 on 3037") << "127.0.0.1" << 3037 << OSCFraming::slip << "Connected";
    QTest::newRow("OSC 1.0 on 3032, spaces around the host")
        << "  127.0.0.1 " << 3032 << OSCFraming::lengthPrefixed << "Connected";
    QTest::newRow("nobody on the port")
        << "127.0.0.1" << 3999 << OSCFraming::slip << "Connection refused";
    QTest::newRow("port out of range")
        << "127.0.0.1" << 70000 << OSCFraming::slip << "Invalid port";
}

void EosConnectionTest::connectsToTheTypedAddress()
{
    QFETCH(QString, host);
    QFETCH(int, port);
    QFETCH(OSCFraming, framing);
    QFETCH(QString, text);

    PretendConsole::Options options;
    options.showName = QStringLiteral("Hamlet");
    auto console = startConsole(nullptr, "127.0.0.1", options);
    Link link;
    QStringList heard;
    link.connection.setOnPacket([&](const QByteArray& packet, const QString& from) {
        for (const OSCMessage& message : decodeOSCPacket(packet))
            heard << QString::fromStdString(message.address) + QLatin1Char(' ') + from;
    });
    link.configure(false, host, port, framing);
    QTRY_COMPARE(link.connection.statusText(), text);
    if (text != u"Connected")
        return;
    QVERIFY(link.connection.isConnected());
    QVERIFY(link.connection.advice().isEmpty());
    // On ready the link asks for the console's state once.
    QTRY_VERIFY(heard.contains("/eos/out/show/name 127.0.0.1"));
    QCOMPARE(console->receivedAddresses(), QStringList{"/eos/reset"});
    QVERIFY(heard.contains("/eos/out/active/cue/text 127.0.0.1"));

    // A host of spaces stops the link; switching it off stops it too.
    QTRY_COMPARE(console->connectionCount(), 1);
    link.change([](auto& c) { c.host = QStringLiteral("   "); });
    QCOMPARE(link.connection.streamStatus().kind, OSCStream::Status::Kind::idle);
    QCOMPARE(link.connection.statusText(), QStringLiteral("No console address"));
    QTRY_COMPARE(console->connectionCount(), 0);
    link.change([](auto& c) { c.enabled = false; });
    QCOMPARE(link.connection.statusText(), QStringLiteral("Off"));
}

void EosConnectionTest::adoptsTheOnlyConsoleAndFollowsItsNewAddress()
{
    auto lan = network("follow", "10.71.0.1", {"10.71.0.20"});
    QVERIFY(lan);
    PretendConsole::Options options;
    options.consoleID = QStringLiteral("ION-A");
    options.showName = QStringLiteral("Othello");
    auto console = startConsole(lan.get(), "10.71.0.20", options);

    ManualClock clock;
    Link link(clock);
    link.configure(true, QString());
    QCOMPARE(link.connection.statusText(), QStringLiteral("Searching…"));
    clock.advance(1.0); // the first tick sweeps
    QVERIFY(link.connection.discovery().isScanning());
    QVERIFY(link.waitForScan());
    QCOMPARE(link.kept.host, QStringLiteral("10.71.0.20"));
    QCOMPARE(link.kept.consoleID, std::optional<QString>(QStringLiteral("ION-A")));
    QCOMPARE(link.kept.consoleName, std::optional<QString>(QStringLiteral("Othello")));
    QCOMPARE(link.kept.network, std::nullopt); // a veth is no wired or Wi-Fi network
    QTRY_VERIFY(link.connection.isConnected());

    // While the link answers, scans neither start by themselves nor move it.
    clock.advance(3.0);
    QVERIFY(!link.connection.discovery().isScanning());
    PretendConsole::Options otherOptions;
    otherOptions.consoleID = QStringLiteral("ION-B");
    QString error;
    QVERIFY(lan->addPeerAddress(address("10.71.0.30"), 24, &error));
    auto other = startConsole(lan.get(), "10.71.0.30", otherOptions);
    link.change([](auto& c) { c.consoleID = QStringLiteral("ION-B"); });
    link.connection.searchNow(); // pairing: every console is a candidate
    QVERIFY(link.waitForScan());
    QCOMPARE(link.kept.host, QStringLiteral("10.71.0.20"));
    QVERIFY(link.connection.isConnected());
    other.reset();
    link.change([](auto& c) { c.consoleID = QStringLiteral("ION-A"); });

    // The console comes back on another address: found again by its identity.
    QVERIFY(lan->removePeerAddress(address("10.71.0.20"), 24, &error));
    QVERIFY(lan->addPeerAddress(address("10.71.0.21"), 24, &error));
    QVERIFY2(console->moveTo(address("10.71.0.21"), &error), qPrintable(error));
    // Its old address is gone, so nothing tells the link: it notices the silence.
    clock.advance(19.0);
    QVERIFY(link.connection.isConnected());
    for (int step = 0; step < 20 && link.connection.isConnected(); ++step)
        clock.advance(0.5);
    QCOMPARE(link.connection.statusText(), QStringLiteral("Stopped responding"));
    QVERIFY(link.scanAfter(clock, 1.0));
    QCOMPARE(link.kept.host, QStringLiteral("10.71.0.21"));
    QTRY_COMPARE(link.connection.statusText(), QStringLiteral("Connected"));
}

void EosConnectionTest::twoConsolesNeedAStoredIdentity()
{
    auto lan = network("two", "10.72.0.1", {"10.72.0.20", "10.72.0.30"});
    QVERIFY(lan);
    PretendConsole::Options a;
    a.consoleID = QStringLiteral("ION-A");
    PretendConsole::Options b;
    b.consoleID = QStringLiteral("ION-B");
    b.deviceName = QStringLiteral("Booth Gio");
    auto first = startConsole(lan.get(), "10.72.0.20", a);
    auto second = startConsole(lan.get(), "10.72.0.30", b);

    ManualClock clock;
    Link link(clock);
    link.configure(true, QString());
    QVERIFY(link.scanAfter(clock, 1.0));
    QCOMPARE(link.connection.discovery().consoles().size(), 2);
    QCOMPARE(link.kept.host, QString());
    QCOMPARE(link.connection.statusText(), QStringLiteral("2 consoles found"));

    // With the second console's name stored, the next scan (a broadcast one: the name is
    // the console's own) picks it.
    link.change([](auto& c) { c.consoleName = QStringLiteral("Booth Gio"); });
    QVERIFY(link.scanAfter(clock, 1.0));
    QCOMPARE(link.kept.host, QStringLiteral("10.72.0.30"));
    QCOMPARE(link.kept.consoleID, std::optional<QString>(QStringLiteral("ION-B")));
    QTRY_VERIFY(link.connection.isConnected());
}

void EosConnectionTest::forgottenConsoleReturnsOnlyBySearchNow()
{
    auto lan = network("forget", "10.73.0.1", {"10.73.0.20"});
    QVERIFY(lan);
    auto console = startConsole(lan.get(), "10.73.0.20");

    ManualClock clock;
    Link link(clock);
    link.configure(true, QString());
    QVERIFY(link.scanAfter(clock, 1.0));
    QCOMPARE(link.kept.host, QStringLiteral("10.73.0.20"));
    QTRY_VERIFY(link.connection.isConnected());

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
    QCOMPARE(link.connection.discovery().consoles().size(), 1);
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
    QCOMPARE(link.kept.host, QStringLiteral("10.73.0.20"));
    QCOMPARE(link.connection.forgotten(), std::nullopt);
    QTRY_VERIFY(link.connection.isConnected());
}

void EosConnectionTest::adoptionNeverConnectsToTheOldAddress()
{
    auto lan = network("moved", "10.76.0.1", {"10.76.0.20"});
    QVERIFY(lan);
    PretendConsole::Options options;
    options.consoleID = QStringLiteral("ION-A");
    auto console = startConsole(lan.get(), "10.76.0.20", options);
    // Another console answers at the address the link was set to (loopback, which no scan
    // covers), but only over a wired interface, which this machine lacks: the link cannot
    // reach it, searches, and finds its console elsewhere.
    auto old = startConsole(nullptr, "127.0.0.1");

    ManualClock clock;
    Link link(clock);
    link.change([](auto& c) {
        c = EosConnection::Configuration{true,
                                         true,
                                         QStringLiteral("127.0.0.1"),
                                         3037,
                                         OSCFraming::slip,
                                         NetworkKind::wired,
                                         QStringLiteral("ION-A"),
                                         std::nullopt};
    });
    QTRY_COMPARE(link.connection.streamStatus().kind, OSCStream::Status::Kind::retrying);
    QVERIFY(link.scanAfter(clock, 1.0));
    QCOMPARE(link.adoptions, 1);
    QCOMPARE(link.kept.host, QStringLiteral("10.76.0.20"));
    QCOMPARE(link.kept.network, std::nullopt);
    QTRY_VERIFY(link.connection.isConnected());
    QTRY_COMPARE(console->connectionCount(), 1);
    // Host and network changed together: no connect ever went to the old address unbound.
    QTest::qWait(100);
    QCOMPARE(old->connectionsAccepted(), 0);
}

void EosConnectionTest::searchSweepsAtMostEvery120Seconds()
{
    auto lan = network("spacing", "10.74.0.1", {"10.74.0.20", "10.74.0.30"});
    QVERIFY(lan);
    // Two consoles that only a sweep finds, and none is adopted without an identity.
    PretendConsole::Options quiet;
    quiet.answersDiscovery = false;
    auto first = startConsole(lan.get(), "10.74.0.20", quiet);
    auto second = startConsole(lan.get(), "10.74.0.30", quiet);

    ManualClock clock;
    Link link(clock);
    link.configure(true, QString());
    const auto found = [&] { return link.connection.discovery().consoles().size(); };

    QVERIFY(link.scanAfter(clock, 1.0)); // t = 1: the first scan sweeps
    QCOMPARE(found(), 2);
    QVERIFY(link.scanAfter(clock, 1.0)); // t = 2: broadcast only
    QCOMPARE(found(), 0);
    QCOMPARE(link.connection.statusText(), QStringLiteral("No console found"));
    // t = 3 starts a broadcast scan; later ticks find it running
    QVERIFY(link.scanAfter(clock, 118.0));
    QCOMPARE(found(), 0);
    QVERIFY(link.scanAfter(clock, 1.0)); // t = 121: 120 s after the last sweep
    QCOMPARE(found(), 2);
    QCOMPARE(link.kept.host, QString());
    QCOMPARE(first->connectionsAccepted(), 2);
}

int main(int argc, char** argv)
{
    // Before any thread starts: threads made later share the private network.
    isolated = NetNamespace::isolateThisProcess(&isolationError);
    QCoreApplication app(argc, argv);
    EosConnectionTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "EosConnectionTest.moc"
