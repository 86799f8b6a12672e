#include "support/Golden.h"

#include <QFile>
#include <QList>

#include <algorithm>

namespace orvane::testing {

bool isRebaselining()
{
    return qgetenv("ORVANE_REBASELINE") == "1";
}

GoldenComparison compareWithGolden(const QByteArray& actual, const QString& path)
{
    if (isRebaselining()) {
        QFile out(path);
        if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            out.write(actual) != actual.size())
            return {false, QStringLiteral("could not rewrite %1").arg(path)};
        return {true, {}};
    }
    QFile in(path);
    if (!in.open(QIODevice::ReadOnly))
        return {false, QStringLiteral("missing %1; run with ORVANE_REBASELINE=1").arg(path)};
    const QByteArray expected = in.readAll();
    if (expected == actual)
        return {true, {}};
    const QList<QByteArray> expectedLines = expected.split('\n');
    const QList<QByteArray> actualLines = actual.split('\n');
    const qsizetype common = std::min(expectedLines.size(), actualLines.size());
    qsizetype line = 0;
    while (line < common && expectedLines[line] == actualLines[line])
        ++line;
    const auto lineText = [](const QList<QByteArray>& lines, qsizetype index) {
        return index < lines.size() ? QString::fromUtf8(lines[index])
                                    : QStringLiteral("(end of file)");
    };
    return {false, QStringLiteral("%1 differs at line %2:\n  expected: %3\n  actual:   %4")
                       .arg(path)
                       .arg(line + 1)
                       .arg(lineText(expectedLines, line), lineText(actualLines, line))};
}

} // namespace orvane::testing
