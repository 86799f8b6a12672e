// The golden-file helper: only ORVANE_REBASELINE=1 rewrites a file; anything else compares.
#include "support/Golden.h"

#include <QTemporaryDir>
#include <QTest>

using namespace orvane::testing;

class GoldenTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void rewritesOnlyWhenAskedTo()
    {
        QTemporaryDir folder;
        const QString path = folder.filePath("golden.txt");
        // What differs with ORVANE_REBASELINE set to `rebaseline`; empty when it matches.
        const auto compare = [&](const char* rebaseline, const char* actual) {
            qputenv("ORVANE_REBASELINE", rebaseline);
            const GoldenComparison result = compareWithGolden(actual, path);
            qunsetenv("ORVANE_REBASELINE");
            return result.matches == result.difference.isEmpty() ? result.difference
                                                                 : QStringLiteral("?");
        };
        const QString line2 = path + " differs at line 2:\n  expected: two\n  actual:   ";
        QCOMPARE(compare("", "one\n"), "missing " + path + "; run with ORVANE_REBASELINE=1");
        QCOMPARE(compare("1", "one\ntwo\n"), QString());
        QCOMPARE(compare("", "one\ntwo\n"), QString());
        QCOMPARE(compare("yes", "one\nTWO\n"), line2 + "TWO");
        QCOMPARE(compare("0", "one\n"), line2);
    }
};

QTEST_GUILESS_MAIN(GoldenTest)
#include "GoldenTest.moc"
