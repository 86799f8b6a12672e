// The pure rules of console discovery: which addresses a sweep probes, what a discovery reply
// says, how a scan's parts are joined, and how an interface's kind is read.
#include "eos/EosDiscovery.h"
#include "eos/NetworkSockets.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QTemporaryDir>
#include <QTest>

#include <set>

using namespace orvane;

namespace {

std::uint32_t ip(const char* text)
{
    return QHostAddress(QString::fromLatin1(text)).toIPv4Address();
}

ScanTarget target(const char* address, int prefixLength, NetworkKind kind = NetworkKind::wired)
{
    ScanTarget made;
    made.name = QStringLiteral("eth0");
    made.network = kind;
    made.address = ip(address);
    made.netmask = prefixLength == 0 ? 0 : ~std::uint32_t(0) << (32 - prefixLength);
    made.index = 2;
    return made;
}

DiscoveredConsole console(const char* host, const char* interfaceName)
{
    DiscoveredConsole made;
    made.host = QString::fromLatin1(host);
    made.interfaceName = QString::fromLatin1(interfaceName);
    return made;
}

} // namespace

class DiscoveryRulesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void sweepAddresses_data();
    void sweepAddresses();
    void consoleFromReply_data();
    void consoleFromReply();
    void mergeJoinsDiscoveryAndProbesOfTheSameHostAndInterface();
};

void DiscoveryRulesTest::sweepAddresses_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<int>("prefixLength");
    QTest::addColumn<int>("count");
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("last");
    QTest::addColumn<QStringList>("probed");
    QTest::addColumn<QStringList>("notProbed");

    QTest::newRow("/24: its own subnet without itself")
        << "192.168.1.10" << 24 << 253 << "192.168.1.1"
        << "192.168.1.254" << QStringList{"192.168.1.9", "192.168.1.11"}
        << QStringList{"192.168.1.0", "192.168.1.255", "192.168.100.1"};
    QTest::newRow("/16: the .100 range first, then its own /22")
        << "10.88.4.1" << 16 << 254 + 1021 << "10.88.100.1"
        << "10.88.7.254" << QStringList{"10.88.100.254", "10.88.4.2", "10.88.6.9"}
        << QStringList{"10.88.3.254", "10.88.8.1", "10.88.50.5", "10.88.100.0"};
    QTest::newRow("/16 inside the .100 range: each address once")
        << "10.5.100.50" << 16 << 1021 << "10.5.100.1"
        << "10.5.103.254" << QStringList{"10.5.101.1"} << QStringList{"10.5.104.1"};
    QTest::newRow("/20: capped to the /22 that holds it, no .100 range")
        << "172.16.9.200" << 20 << 1021 << "172.16.8.1"
        << "172.16.11.254" << QStringList{"172.16.11.1"}
        << QStringList{"172.16.12.1", "172.16.100.1"};
    QTest::newRow("/8: .100 range of its first two octets and its /22")
        << "10.20.30.40" << 8 << 254 + 1021 << "10.20.100.1"
        << "10.20.31.254" << QStringList{"10.20.28.1"} << QStringList{"10.21.100.1"};
    QTest::newRow("/30: the one other host") << "10.0.0.1" << 30 << 1 << "10.0.0.2"
                                             << "10.0.0.2" << QStringList{} << QStringList{};
    QTest::newRow("/31: nothing to probe") << "10.0.0.0" << 31 << 0 << ""
                                           << "" << QStringList{} << QStringList{};
}

void DiscoveryRulesTest::sweepAddresses()
{
    QFETCH(QString, address);
    QFETCH(int, prefixLength);
    QFETCH(int, count);
    QFETCH(QString, first);
    QFETCH(QString, last);
    QFETCH(QStringList, probed);
    QFETCH(QStringList, notProbed);

    const ScanTarget on = target(address.toLatin1().constData(), prefixLength);
    const std::vector<std::uint32_t> list = EosDiscovery::sweepAddresses(on);
    QCOMPARE(int(list.size()), count);
    const std::set<std::uint32_t> unique(list.begin(), list.end());
    QCOMPARE(unique.size(), list.size());
    QVERIFY(!unique.contains(on.address));
    if (count == 0)
        return;
    QCOMPARE(QHostAddress(list.front()).toString(), first);
    QCOMPARE(QHostAddress(list.back()).toString(), last);
    for (const QString& host : probed)
        QVERIFY2(unique.contains(ip(host.toLatin1().constData())), qPrintable(host));
    for (const QString& host : notProbed)
        QVERIFY2(!unique.contains(ip(host.toLatin1().constData())), qPrintable(host));
}

void DiscoveryRulesTest::consoleFromReply_data()
{
    QTest::addColumn<OSCMessage>("reply");
    QTest::addColumn<bool>("isConsole");
    QTest::addColumn<QString>("fields"); // device name|console ID|version, empty when absent
    const auto row = [](const char* name, std::string address, std::vector<OSCArgument> arguments,
                        bool isConsole, const char* fields) {
        QTest::newRow(name) << OSCMessage{std::move(address), std::move(arguments)} << isConsole
                            << fields;
    };
    const std::string reply = "/etc/discovery/reply";
    row("full reply", reply,
        {3037, std::string("Booth Ion"), std::string("ION-7"), std::string("3.2.1")}, true,
        "Booth Ion|ION-7|3.2.1");
    row("numbers become text", reply, {3037, 1.1f, 42, 0.5f}, true, "1.1|42|0.5");
    row("a blob is absent", reply, {3037, QByteArray("\x01"), std::string("ID")}, true, "|ID|");
    row("one argument: host only", reply, {std::string("Booth Ion")}, true, "||");
    row("two arguments: a name only", "/etc/discovery/answer", {3037, std::string("Gio")}, true,
        "Gio||");
    row("our own request heard back", "/etc/discovery/request", {50000, std::string("Orvane")},
        false, "");
    row("another address", "/eos/out/ping", {3037, std::string("x")}, false, "");
    row("a lookalike prefix", "/etc/discoveryX", {3037, std::string("x")}, true, "x||");
}

void DiscoveryRulesTest::consoleFromReply()
{
    QFETCH(OSCMessage, reply);
    QFETCH(bool, isConsole);
    QFETCH(QString, fields);
    const ScanTarget on = target("10.0.0.1", 24, NetworkKind::wifi);
    const auto found = EosDiscovery::consoleFromReply(reply, QStringLiteral("10.0.0.9"), on);
    QCOMPARE(found.has_value(), isConsole);
    if (!found)
        return;
    QCOMPARE(found->host, QStringLiteral("10.0.0.9"));
    QCOMPARE(found->interfaceName, QStringLiteral("eth0"));
    QCOMPARE(found->network, NetworkKind::wifi);
    QCOMPARE(found->showName, std::nullopt);
    QCOMPARE(QStringList({found->deviceName.value_or(QString()),
                          found->consoleID.value_or(QString()), found->version.value_or(QString())})
                 .join(u'|'),
             fields);
}

void DiscoveryRulesTest::mergeJoinsDiscoveryAndProbesOfTheSameHostAndInterface()
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
    QCOMPARE(joined.size(), 3);
    QCOMPARE(joined[0].id(), QStringLiteral("10.0.0.5%eth0"));
    QCOMPARE(joined[0].showName, std::optional<QString>(QStringLiteral("Hamlet")));
    QCOMPARE(joined[0].version, std::optional<QString>(QStringLiteral("3.2")));
    QCOMPARE(joined[0].consoleID, std::optional<QString>(QStringLiteral("ION-1")));
    QCOMPARE(joined[0].shownName(), QStringLiteral("Hamlet"));
    QCOMPARE(joined[1], repliedOnWifi); // the same console on another interface stays apart
    QCOMPARE(joined[1].shownName(), QStringLiteral("Ion"));
    QCOMPARE(joined[2], probedOnly);
}

QTEST_GUILESS_MAIN(DiscoveryRulesTest)
#include "DiscoveryRulesTest.moc"
