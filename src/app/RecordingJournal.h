#pragma once

#include "app/CueLogEntry.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <memory>
#include <optional>
#include <vector>

namespace orvane {

// What a recording's journal holds: enough to finish its movies and write its cue log after
// a crash. Plain value.
struct JournalContents {
    struct Movie {
        QString file;                 // its file name, in the journal's folder
        std::optional<double> offset; // seconds from the recording's start to its first frame
        double frameDuration = 0;
        friend bool operator==(const Movie&, const Movie&) = default;
    };
    QString name; // the recording's name: the main movie's name without ".mov"
    bool writesCueLog = true;
    std::vector<Movie> movies; // main camera first
    QList<CueLogEntry> rows;
    bool stopped = false; // the recording was stopped, not cut off
    int skippedLines = 0; // torn or unreadable lines
};

// The journal of a running recording, a file beside its main movie: one JSON object a line,
// each synced to the disk as it is written, so a crash or a power cut loses no row. The file
// is locked while it is open, so recovery leaves the journal of a running recording alone.
// Main thread only.
class RecordingJournal {
public:
    // Makes the journal at `path` with its first line; nullptr and `error` on failure.
    static std::unique_ptr<RecordingJournal> create(const QString& path, const QString& name,
                                                    bool writesCueLog,
                                                    const QStringList& movieFiles, QString& error);
    ~RecordingJournal(); // closes the file, which stays
    RecordingJournal(const RecordingJournal&) = delete;
    RecordingJournal& operator=(const RecordingJournal&) = delete;

    const QString& path() const { return path_; }
    // The movie `file` got its first frame `offset` seconds after the recording started.
    void addMovieStart(const QString& file, double offset, double frameDuration);
    void addRow(const CueLogEntry& row);
    // The recording was stopped; what is left to do is giving its movies their chapters.
    void addStop();
    // The recording is whole on the disk: the journal goes.
    void remove();

    // The journal's file beside the main movie.
    static QString pathFor(const QString& mainMovie);
    // Whether a running recording, of this Orvane or another, holds the journal at `path`.
    static bool isInUse(const QString& path);

private:
    RecordingJournal(QString path, int fd);
    void append(const QByteArray& line);

    QString path_;
    int fd_ = -1;
};

// Reads a journal's lines; lines that are torn or not understood are skipped. None when its
// first line, which names the recording and its movies, is unreadable.
std::optional<JournalContents> readJournal(const QByteArray& bytes);

} // namespace orvane
