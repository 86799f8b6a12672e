#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>

namespace orvane {

// Finishing the recordings that a crash or a power cut cut off: every journal left in the
// recordings folder whose recording is not running any more has its movies turned into
// ordinary ones with their chapters, its cue log and marker lists written, and goes.

struct RecoveryReport {
    QStringList recovered; // one sentence per recording recovered
    QStringList leftAlone; // one sentence per journal that could not be used
    QStringList sentences() const { return recovered + leftAlone; }
};

// Recovers the recordings cut off in `folder`. Takes as long as copying their movies once.
// Any thread.
RecoveryReport recoverRecordings(const QString& folder);

// recoverRecordings() on a thread of its own; `done` gets the report on `context`'s thread,
// unless `context` is gone by then.
void recoverRecordingsInBackground(const QString& folder, QObject* context,
                                   std::function<void(const RecoveryReport&)> done);

} // namespace orvane
