// What kind of network an interface is, read from a pretend sysfs tree.
#include "osc/NetworkKind.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace orvane;

class NetworkKindTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void kindComesFromSysfs_data();
    void kindComesFromSysfs();
};

void NetworkKindTest::kindComesFromSysfs_data()
{
    // Paths under the interface's folder: "name/" a folder, "name->target" a link,
    // "name=content" a file.
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<NetworkKind>("kind");

    QTest::newRow("wireless folder")
        << QStringList{"type=1", "device/", "wireless/"} << NetworkKind::wifi;
    QTest::newRow("phy80211 link without a wireless folder")
        << QStringList{"type=1", "device/", "phy80211->../ieee80211/phy0"} << NetworkKind::wifi;
    QTest::newRow("ethernet with a device")
        << QStringList{"type=1", "device/"} << NetworkKind::wired;
    QTest::newRow("ethernet without a device (veth, bridge)")
        << QStringList{"type=1"} << NetworkKind::other;
    QTest::newRow("loopback") << QStringList{"type=772"} << NetworkKind::other;
    QTest::newRow("device but not ethernet (tunnel)")
        << QStringList{"type=65534", "device/"} << NetworkKind::other;
    QTest::newRow("no type file") << QStringList{"device/"} << NetworkKind::other;
}

void NetworkKindTest::kindComesFromSysfs()
{
    QFETCH(QStringList, files);
    QFETCH(NetworkKind, kind);

    QTemporaryDir root;
    QVERIFY(root.isValid());
    QDir folder(root.path());
    QVERIFY(folder.mkpath(QStringLiteral("if0")));
    QVERIFY(folder.cd(QStringLiteral("if0")));
    for (const QString& entry : files) {
        if (entry.endsWith(QLatin1Char('/'))) {
            QVERIFY(folder.mkpath(entry));
        } else if (entry.contains(QStringLiteral("->"))) {
            // A link into the tree, as sysfs makes them.
            QVERIFY(QDir(root.path()).mkpath(QStringLiteral("ieee80211/phy0")));
            QVERIFY(QFile::link(entry.section(QStringLiteral("->"), 1),
                                folder.filePath(entry.section(QStringLiteral("->"), 0, 0))));
        } else {
            QFile file(folder.filePath(entry.section(QLatin1Char('='), 0, 0)));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(entry.section(QLatin1Char('='), 1).toLatin1() + '\n');
        }
    }
    QCOMPARE(networkKindOfInterface(QStringLiteral("if0"), root.path()), kind);
    QCOMPARE(networkKindOfInterface(QStringLiteral("missing0"), root.path()), NetworkKind::other);
}

QTEST_GUILESS_MAIN(NetworkKindTest)
#include "NetworkKindTest.moc"
