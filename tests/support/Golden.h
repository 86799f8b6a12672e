#pragma once

#include <QByteArray>
#include <QString>

// Golden files: expected output kept beside the tests in expected/ folders. A test compares
// what it made with the file; with ORVANE_REBASELINE=1 (and only then) it rewrites the file
// instead, and the diff is read before committing.
namespace orvane::testing {

// Whether golden files are to be rewritten: ORVANE_REBASELINE is exactly "1".
bool isRebaselining();

struct GoldenComparison {
    bool matches = false;
    QString difference; // when it does not match: what differs, for the failure message
};

// Compares `actual` with the golden file at `path`, or rewrites the file when rebaselining.
// Text is compared line by line, and the first differing line is named.
GoldenComparison compareWithGolden(const QByteArray& actual, const QString& path);

} // namespace orvane::testing
