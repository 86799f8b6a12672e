// The console link: where it goes, which found console it adopts and follows, and what it
// says. Real pretend consoles, on loopback or on pretend hosts in network namespaces.
#include "eos/EosConnection.h"
#include "PretendNetwork.h"
#include "base/ManualClock.h"

using namespace orvane;
using namespace orvane::testing;
using Kind = OSCStream::Failure::Kind;
using StatusKind = OSCStream::Status::Kind;

namespace {

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

class EosConnectionTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void describe_data();
    void describe();
    void connectsToTheTypedAddress();
    void adoptsTheOnlyConsoleAndFollowsItsNewAddress();
    void forgottenConsoleReturnsOnlyBySearchNow();
    void sweepsAtMostEvery120SecondsAndNeedsAnIdentityForTwo();
};

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
    const OSCStream::Status ready{StatusKind::ready, {}, 0};
    // A link to 10.0.0.5, typed, retrying after `kind`. Each kind's sentence is one line of a
    // switch whose cover of every kind the compiler checks, so one kind shows that text and
    // advice reach the description, and the other shows the system's own text.
    const auto failed = [&](const char* name, Kind kind, const char* text, QString advice = {},
                            const QString& systemText = {}) {
        row(name, "manual", "10.0.0.5", {StatusKind::retrying, {kind, systemText}, 3}, false, -1,
            text, advice);
    };

    // Where one condition wins over another. The discovery texts on their own (a count, none
    // found, no address) are seen in the scenarios below.
    row("never configured", "none", "", idle, false, -1, "Off");
    row("off, even with a live stream", "off", "10.0.0.5", ready, true, 2, "Off");
    row("no host, scanning", "auto", "", idle, true, 3, "Searching…");
    row("host wins over a running scan", "auto", "10.0.0.5", ready, true, 0, "Connected");
    failed("refused", Kind::refused, "Connection refused",
           "The console is there but isn't accepting OSC. Turn on Third Party OSC in Setup › "
           "Device Settings › Network › Interface Protocols, and check the port.");
    failed("other failure: the system's text", Kind::other, "Too many open files", {},
           "Too many open files");
}

void EosConnectionTest::describe()
{
    QFETCH(QString, link);
    QFETCH(QString, host);
    QFETCH(OSCStream::Status, status);
    QFETCH(bool, isScanning);
    QFETCH(int, found);
    std::optional<EosConnection::Configuration> configuration;
    if (link != u"none")
        configuration = EosConnection::Configuration{link != u"off", link != u"manual", host};
    const auto described = EosConnection::describe(
        configuration, status, isScanning, found < 0 ? std::nullopt : std::optional<int>(found));
    QTEST(described.status, "text");
    QTEST(described.advice, "advice");
}

// OSC 1.0 on its port, with blanks around the typed host. (OSC 1.1 on 3037 is what the whole
// application's run with the pretend console connects to.)
void EosConnectionTest::connectsToTheTypedAddress()
{
    auto console = startConsole(nullptr, "127.0.0.1", named("ION", "Hamlet"));
    Link link;
    QStringList heard;
    link.connection.setOnPacket([&](const QByteArray& packet, const QString& from) {
        for (const OSCMessage& message : decodeOSCPacket(packet))
            heard << QString::fromStdString(message.address) + u' ' + from;
    });
    link.configure(false, QStringLiteral("  127.0.0.1 "), 3032, OSCFraming::lengthPrefixed);
    QTRY_COMPARE(link.connection.statusText(), QStringLiteral("Connected"));
    QVERIFY(link.connection.advice().isEmpty());
    // On ready the link asks for the console's state once.
    QTRY_VERIFY(heard.contains("/eos/out/show/name 127.0.0.1"));
    QCOMPARE(console->receivedAddresses(), QStringList{"/eos/reset"});
    QVERIFY(heard.contains("/eos/out/active/cue/text 127.0.0.1"));

    // A host of spaces stops the link; switching it off stops it too.
    QTRY_COMPARE(console->connectionCount(), 1);
    link.change([](auto& c) { c.host = QStringLiteral("   "); });
    QCOMPARE(link.connection.streamStatus().kind, StatusKind::idle);
    QCOMPARE(link.connection.statusText(), QStringLiteral("No console address"));
    QTRY_COMPARE(console->connectionCount(), 0);
    link.change([](auto& c) { c.enabled = false; });
    QCOMPARE(link.connection.statusText(), QStringLiteral("Off"));
}

void EosConnectionTest::adoptsTheOnlyConsoleAndFollowsItsNewAddress()
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
    QCOMPARE(link.kept.network, std::nullopt); // a veth is no wired or Wi-Fi network
    QTRY_VERIFY(link.connection.isConnected());

    // While the link answers, scans neither start by themselves nor move it, even when the
    // stored identity names another console and "search now" pairs with every console found.
    clock.advance(3.0);
    QVERIFY(!link.connection.discovery().isScanning());
    auto ionB = startConsole(lan.get(), "10.71.0.4", named("ION-B"));
    link.change([](auto& c) { c.consoleID = QStringLiteral("ION-B"); });
    link.connection.searchNow();
    QVERIFY(link.waitForScan());
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

void EosConnectionTest::forgottenConsoleReturnsOnlyBySearchNow()
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
    QCOMPARE(link.kept.network, std::nullopt);
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

void EosConnectionTest::sweepsAtMostEvery120SecondsAndNeedsAnIdentityForTwo()
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
    QVERIFY(link.scanAfter(clock, 1.0)); // t = 2: broadcast only
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

int main(int argc, char** argv)
{
    return runIsolated<EosConnectionTest>(argc, argv);
}

#include "EosConnectionTest.moc"
