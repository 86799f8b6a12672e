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
    QFile file(path);
    if (isRebaselining()) {
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
            file.write(actual) == actual.size())
            return {true, {}};
        return {false, "could not rewrite " + path};
    }
    if (!file.open(QIODevice::ReadOnly))
        return {false, "missing " + path + "; run with ORVANE_REBASELINE=1"};
    const QList<QByteArray> expected = file.readAll().split('\n');
    const QList<QByteArray> lines = actual.split('\n');
    for (qsizetype line = 0; line < std::max(expected.size(), lines.size()); ++line) {
        if (line < expected.size() && line < lines.size() && expected[line] == lines[line])
            continue;
        const auto text = [line](const QList<QByteArray>& in) {
            return line < in.size() ? QString::fromUtf8(in[line]) : QStringLiteral("(end of file)");
        };
        return {false, QStringLiteral("%1 differs at line %2:\n  expected: %3\n  actual:   %4")
                           .arg(path)
                           .arg(line + 1)
                           .arg(text(expected), text(lines))};
    }
    return {true, {}};
}

} // namespace orvane::testing
