#pragma once

#include <QByteArray>
#include <QString>

// Golden files: expected output kept beside the tests in expected/ folders. A test compares
// what it made with the file; with ORVANE_REBASELINE=1 (and only then) it rewrites the file
// instead, and the diff is read before committing.
namespace orvane::testing {

bool isRebaselining();

struct GoldenComparison {
    bool matches = false;
    QString difference; // when it does not match: the first line that differs, for the message
};

GoldenComparison compareWithGolden(const QByteArray& actual, const QString& path);

} // namespace orvane::testing
