#include "app/RecordingRecovery.h"

#include "app/AppLog.h"
#include "app/MarkerLists.h"
#include "app/RecordingJournal.h"
#include "app/Sentence.h"
#include "capture/FinishMovie.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QThread>

extern "C" {
#include <libavformat/avformat.h>
}

namespace orvane {

namespace {

// The length of the finished movie at `path` in seconds, 0 when it cannot be read.
double movieSeconds(const QString& path)
{
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, QFile::encodeName(path).constData(), nullptr, nullptr) < 0)
        return 0;
    const double seconds = context->duration > 0 ? double(context->duration) / AV_TIME_BASE : 0;
    avformat_close_input(&context);
    return seconds;
}

// Finishes the recording of one journal; answers why not, or nothing.
std::optional<QString> recover(const QDir& folder, const JournalContents& journal)
{
    std::vector<JournalContents::Movie> movies;
    for (const auto& movie : journal.movies) {
        const bool exists = QFileInfo(folder.filePath(movie.file)).isFile();
        if (!exists && movie.offset)
            return QStringLiteral("the movie “%1” is gone.").arg(movie.file);
        if (exists) // one made just before the crash may not have its time zero yet
            movies.push_back(movie);
    }
    if (movies.empty())
        return QStringLiteral("its movies are gone.");
    for (const auto& movie : movies) {
        const QString path = folder.filePath(movie.file);
        const double offset = movie.offset.value_or(0);
        const FinishedMovie finished = finishMovie(path, movieChapters(journal.rows, offset));
        if (finished.result != FinishedMovie::Result::finished) {
            return QStringLiteral("the movie “%1” couldn't be finished. %2")
                .arg(movie.file, sentence(finished.message));
        }
        if (!journal.writesCueLog)
            continue;
        if (const auto error = writeCueLogFiles(path, journal.rows, offset, movie.frameDuration,
                                                movieSeconds(path)))
            qCWarning(lcApp, "Couldn't write cue log: %s", qPrintable(*error));
    }
    return std::nullopt;
}

} // namespace

RecoveryReport recoverRecordings(const QString& folder)
{
    RecoveryReport report;
    const QDir dir(folder);
    for (const QFileInfo& info :
         dir.entryInfoList({QStringLiteral("*.journal")}, QDir::Files, QDir::Name)) {
        const QString path = info.absoluteFilePath();
        if (RecordingJournal::isInUse(path))
            continue; // a recording that is running
        QFile file(path);
        const auto journal =
            file.open(QIODevice::ReadOnly) ? readJournal(file.readAll()) : std::nullopt;
        const QString cantRecover = QStringLiteral("Orvane couldn't recover the recording “%1”: ");
        if (!journal) {
            report.leftAlone.append(cantRecover.arg(info.completeBaseName()) +
                                    QStringLiteral("its journal can't be read."));
            continue;
        }
        if (journal->skippedLines > 0)
            qCInfo(lcApp, "recovery: skipped %d torn lines of %s", journal->skippedLines,
                   qPrintable(path));
        if (const auto why = recover(dir, *journal)) {
            qCWarning(lcApp, "recovery: left %s alone: %s", qPrintable(path), qPrintable(*why));
            report.leftAlone.append(cantRecover.arg(journal->name) + *why);
            continue;
        }
        QFile::remove(path);
        syncFileToDisk(dir.absolutePath(), false);
        report.recovered.append(
            (journal->stopped
                 ? QStringLiteral("Orvane finished the recording “%1”: its movies now have their "
                                  "cue chapters.")
                 : QStringLiteral("Orvane recovered the recording “%1” that was cut off."))
                .arg(journal->name));
    }
    return report;
}

void recoverRecordingsInBackground(const QString& folder, QObject* context,
                                   std::function<void(const RecoveryReport&)> done)
{
    // Most starts find nothing to do, and start no thread for it.
    if (QDir(folder).entryList({QStringLiteral("*.journal")}, QDir::Files).isEmpty())
        return;
    auto report = std::make_shared<RecoveryReport>();
    QThread* thread = QThread::create([folder, report] { *report = recoverRecordings(folder); });
    QObject::connect(thread, &QThread::finished, context,
                     [report, done = std::move(done)] { done(*report); });
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start(QThread::LowPriority);
}

} // namespace orvane
