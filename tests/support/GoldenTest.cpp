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
    void namesTheFirstDifferingLine();
};

void GoldenTest::rewritesOnlyWhenAskedTo_data()
{
    QTest::addColumn<QByteArray>("rebaseline"); // null: unset
    QTest::addColumn<QByteArray>("actual");
    QTest::addColumn<bool>("matches");
    QTest::addColumn<QByteArray>("fileAfter");

    const QByteArray golden("one\ntwo\n");
    QTest::newRow("unset, same") << QByteArray() << golden << true << golden;
    QTest::newRow("unset, different") << QByteArray() << QByteArray("one\n") << false << golden;
    QTest::newRow("0, different") << QByteArray("0") << QByteArray("one\n") << false << golden;
    QTest::newRow("empty, different") << QByteArray("") << QByteArray("one\n") << false << golden;
    QTest::newRow("yes is not 1") << QByteArray("yes") << QByteArray("one\n") << false << golden;
    QTest::newRow("1 rewrites") << QByteArray("1") << QByteArray("one\n") << true
                                << QByteArray("one\n");
}

void GoldenTest::rewritesOnlyWhenAskedTo()
{
    QFETCH(QByteArray, rebaseline);
    QFETCH(QByteArray, actual);
    QFETCH(bool, matches);
    QFETCH(QByteArray, fileAfter);

    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("golden.txt"));
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("one\ntwo\n");
    }
    if (rebaseline.isNull())
        qunsetenv("ORVANE_REBASELINE");
    else
        qputenv("ORVANE_REBASELINE", rebaseline);
    const GoldenComparison comparison = compareWithGolden(actual, path);
    qunsetenv("ORVANE_REBASELINE");
    QCOMPARE(comparison.matches, matches);
    QCOMPARE(comparison.difference.isEmpty(), matches);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), fileAfter);
}

void GoldenTest::namesTheFirstDifferingLine()
{
    qunsetenv("ORVANE_REBASELINE");
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("golden.txt"));
    QCOMPARE(compareWithGolden("a\n", path).difference,
             QStringLiteral("missing %1; run with ORVANE_REBASELINE=1").arg(path));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("a\nb\nc\n");
    file.close();
    QCOMPARE(compareWithGolden("a\nB\nc\n", path).difference,
             path + QStringLiteral(" differs at line 2:\n  expected: b\n  actual:   B"));
    QCOMPARE(compareWithGolden("a\nb\n", path).difference,
             path + QStringLiteral(" differs at line 3:\n  expected: c\n  actual:   "));
}

QTEST_GUILESS_MAIN(GoldenTest)
#include "GoldenTest.moc"
