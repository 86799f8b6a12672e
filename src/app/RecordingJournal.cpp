#include "app/RecordingJournal.h"

#include "app/AppLog.h"
#include "app/CueLog.h"
#include "capture/FinishMovie.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace orvane {

namespace {

QByteArray lineOf(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

} // namespace

std::unique_ptr<RecordingJournal> RecordingJournal::create(const QString& path, const QString& name,
                                                           bool writesCueLog,
                                                           const QStringList& movieFiles,
                                                           QString& error)
{
    // Made under another name, locked and with its first line, then renamed: recovery never
    // meets a journal that is half made or not yet locked.
    const QByteArray made = QFile::encodeName(path + QStringLiteral(".new"));
    const int fd =
        ::open(made.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        return nullptr;
    }
    ::flock(fd, LOCK_EX | LOCK_NB);
    std::unique_ptr<RecordingJournal> journal(new RecordingJournal(path, fd));
    journal->append(lineOf({{QStringLiteral("recording"), name},
                            {QStringLiteral("writesCueLog"), writesCueLog},
                            {QStringLiteral("movies"), QJsonArray::fromStringList(movieFiles)}}));
    if (::rename(made.constData(), QFile::encodeName(path).constData()) != 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        ::unlink(made.constData());
        return nullptr;
    }
    syncFileToDisk(path, true); // its name too
    return journal;
}

RecordingJournal::RecordingJournal(QString path, int fd)
    : path_(std::move(path))
    , fd_(fd)
{
}

RecordingJournal::~RecordingJournal()
{
    if (fd_ >= 0)
        ::close(fd_);
}

void RecordingJournal::addMovieStart(const QString& file, double offset, double frameDuration)
{
    append(lineOf({{QStringLiteral("movie"), file},
                   {QStringLiteral("offset"), offset},
                   {QStringLiteral("frameDuration"), frameDuration}}));
}

void RecordingJournal::addStop()
{
    append(lineOf({{QStringLiteral("stopped"), true}}));
}

void RecordingJournal::addRow(const CueLogEntry& row)
{
    append(lineOf({{QStringLiteral("elapsed"), row.elapsed},
                   {QStringLiteral("timecode"), row.timecode},
                   {QStringLiteral("event"), row.event},
                   {QStringLiteral("detail"), row.detail}}));
}

void RecordingJournal::append(const QByteArray& line)
{
    if (fd_ < 0)
        return;
    // One write for the whole line: a crash tears at most this line, and reading skips it.
    if (::write(fd_, line.constData(), std::size_t(line.size())) != line.size() ||
        ::fdatasync(fd_) != 0)
        qCWarning(lcApp, "Couldn't write the recording journal %s: %s", qPrintable(path_),
                  std::strerror(errno));
}

void RecordingJournal::remove()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    QFile::remove(path_);
}

QString RecordingJournal::pathFor(const QString& mainMovie)
{
    return besideMovie(mainMovie, QStringLiteral("journal"));
}

bool RecordingJournal::isInUse(const QString& path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool locked = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return locked;
}

std::optional<JournalContents> readJournal(const QByteArray& bytes)
{
    const QList<QByteArray> lines = bytes.split('\n');
    if (lines.isEmpty())
        return std::nullopt;
    const QJsonObject header = QJsonDocument::fromJson(lines.front()).object();
    if (!header.value(QStringLiteral("recording")).isString())
        return std::nullopt;
    JournalContents journal;
    journal.name = header.value(QStringLiteral("recording")).toString();
    journal.writesCueLog = header.value(QStringLiteral("writesCueLog")).toBool(true);
    for (const auto& file : header.value(QStringLiteral("movies")).toArray())
        if (file.isString() && !file.toString().contains(QLatin1Char('/')))
            journal.movies.push_back({file.toString(), std::nullopt, 0});
    for (qsizetype i = 1; i < lines.size(); ++i) {
        if (lines[i].isEmpty())
            continue;
        const QJsonObject line = QJsonDocument::fromJson(lines[i]).object();
        const QJsonValue movie = line.value(QStringLiteral("movie"));
        const QJsonValue elapsed = line.value(QStringLiteral("elapsed"));
        if (movie.isString() && line.value(QStringLiteral("offset")).isDouble()) {
            for (auto& known : journal.movies) {
                if (known.file != movie.toString())
                    continue;
                known.offset = line.value(QStringLiteral("offset")).toDouble();
                known.frameDuration = line.value(QStringLiteral("frameDuration")).toDouble();
            }
        } else if (elapsed.isDouble() && line.value(QStringLiteral("event")).isString()) {
            journal.rows.append({elapsed.toDouble(),
                                 line.value(QStringLiteral("timecode")).toString(),
                                 line.value(QStringLiteral("event")).toString(),
                                 line.value(QStringLiteral("detail")).toString()});
        } else if (line.value(QStringLiteral("stopped")).toBool()) {
            journal.stopped = true;
        } else {
            ++journal.skippedLines;
        }
    }
    return journal;
}

} // namespace orvane
