// The golden-file helper: only ORVANE_REBASELINE=1 rewrites a file; anything else compares.
#include "support/Golden.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace orvane::testing;

class GoldenTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void rewritesOnlyWhenAskedTo_data();
    void rewritesOnlyWhenAskedTo();
};

void GoldenTest::rewritesOnlyWhenAskedTo_data()
{
    QTest::addColumn<QByteArray>("rebaseline"); // null: unset
    QTest::addColumn<QByteArray>("actual");
    QTest::addColumn<QByteArray>("fileAfter");
    QTest::addColumn<QString>("difference"); // %1: the file; empty when it matches

    const QByteArray golden("one\ntwo\n");
    const QString line2 = "%1 differs at line 2:\n  expected: two\n  actual:   ";
    QTest::newRow("unset, same") << QByteArray() << golden << golden << "";
    QTest::newRow("unset, a line differs")
        << QByteArray() << QByteArray("one\nTWO\n") << golden << line2 + "TWO";
    QTest::newRow("yes is not 1") << QByteArray("yes") << QByteArray("one\n") << golden << line2;
    QTest::newRow("1 rewrites") << QByteArray("1") << QByteArray("one\n") << QByteArray("one\n")
                                << "";
}

void GoldenTest::rewritesOnlyWhenAskedTo()
{
    QFETCH(QByteArray, rebaseline);
    QFETCH(QByteArray, actual);
    QFETCH(QByteArray, fileAfter);
    QFETCH(QString, difference);

    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("golden.txt"));
    qunsetenv("ORVANE_REBASELINE");
    QCOMPARE(compareWithGolden(actual, path).difference,
             QStringLiteral("missing %1; run with ORVANE_REBASELINE=1").arg(path));
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("one\ntwo\n");
    }
    if (!rebaseline.isNull())
        qputenv("ORVANE_REBASELINE", rebaseline);
    const GoldenComparison comparison = compareWithGolden(actual, path);
    qunsetenv("ORVANE_REBASELINE");
    QCOMPARE(comparison.matches, difference.isEmpty());
    QCOMPARE(comparison.difference, difference.isEmpty() ? QString() : difference.arg(path));
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), fileAfter);
}

QTEST_GUILESS_MAIN(GoldenTest)
#include "GoldenTest.moc"
