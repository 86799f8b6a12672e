// The Eos settings and the link: edits reach the link, and what the link reports is kept in
// the settings and applied once, never half-written. (Settings reach the file: SettingsTest.)
#include "app/EosSettings.h"
#include "settings/AppSettings.h"

#include <QTemporaryDir>
#include <QTest>

using namespace orvane;

Q_DECLARE_METATYPE(std::function<void(orvane::EosConnection&)>)

class EosSettingsTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void reportsAreKeptAndAppliedWhole_data();
    void reportsAreKeptAndAppliedWhole();
    void editsReachTheLink();
};

namespace {

using Configuration = EosConnection::Configuration;
using Report = std::function<void(EosConnection&)>;

struct Store {
    QTemporaryDir folder;
    AppSettings settings{
        AppSettings::Location{folder.filePath("Orvane.json"), folder.filePath("support")}};
};

} // namespace

void EosSettingsTest::reportsAreKeptAndAppliedWhole_data()
{
    QTest::addColumn<Report>("report");
    QTest::addColumn<QString>("host");
    QTest::addColumn<std::optional<QString>>("consoleID");
    QTest::addColumn<bool>("enabled");

    const Report adopted = [](EosConnection& c) {
        Q_EMIT c.consoleAdopted({"10.0.0.7", std::nullopt, "ION-B", std::nullopt});
    };
    QTest::newRow("adopted") << adopted << "10.0.0.7" << std::optional<QString>("ION-B") << true;
    QTest::newRow("forgotten") << Report([](EosConnection& c) { Q_EMIT c.consoleForgotten(); })
                               << "" << std::optional<QString>() << false;
    QTest::newRow("turned on") << Report([](EosConnection& c) { Q_EMIT c.turnedOn(); })
                               << "10.0.0.5" << std::optional<QString>("ION-A") << true;
}

void EosSettingsTest::reportsAreKeptAndAppliedWhole()
{
    QFETCH(Report, report);
    QFETCH(QString, host);
    QFETCH(std::optional<QString>, consoleID);
    QFETCH(bool, enabled);

    Store store;
    store.settings.setEosEnabled(false);
    store.settings.setEosHost(QStringLiteral("10.0.0.5"));
    store.settings.setEosNetwork(NetworkKind::wired);
    store.settings.setEosConsoleID(QStringLiteral("ION-A"));
    store.settings.setEosConsoleName(QStringLiteral("Booth"));
    EosConnection connection;
    auto* binding = new EosSettings(connection, store.settings);
    binding->apply();

    // Every configuration the link is given from here on.
    QList<Configuration> applied;
    connect(&connection, &EosConnection::configurationChanged, this,
            [&] { applied.append(*connection.configuration()); });
    report(connection);
    QCOMPARE(store.settings.eosHost(), host);
    QCOMPARE(store.settings.eosConsoleID(), consoleID);
    QCOMPARE(store.settings.eosEnabled(), enabled);
    QCOMPARE(applied.size(), 1); // once, with every key written
    QCOMPARE(applied.front(), eosConfiguration(store.settings));
}

void EosSettingsTest::editsReachTheLink()
{
    Store store;
    EosConnection connection;
    new EosSettings(connection, store.settings);
    QCOMPARE(connection.configuration(), std::nullopt); // nothing until applied or edited
    store.settings.setEosHost(QStringLiteral("  ion.local "));
    QCOMPARE(connection.configuration()->host, QStringLiteral("  ion.local "));
    store.settings.setEosConsoleName(QStringLiteral("Booth Gio"));
    QCOMPARE(connection.configuration()->consoleName, std::optional<QString>("Booth Gio"));
    store.settings.setEosPort(3032);
    store.settings.setEosFraming(OSCFraming::lengthPrefixed);
    QCOMPARE(*connection.configuration(), eosConfiguration(store.settings));
    QCOMPARE(connection.statusText(), QStringLiteral("Connecting…"));
    store.settings.setEosEnabled(false);
    QCOMPARE(connection.statusText(), QStringLiteral("Off"));
}

QTEST_GUILESS_MAIN(EosSettingsTest)
#include "EosSettingsTest.moc"
