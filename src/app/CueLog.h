#pragma once

#include "app/CueLogEntry.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

namespace orvane {

// The cue log as the CSV file written beside each movie: a header line, then one line per
// row, fields separated by "," and lines ended by a line feed. Any thread.

// Whole seconds as "HH:MM:SS", truncated towards zero; hours are not wrapped at 24.
QString cueLogTime(double elapsed);
// A field as written: quoted, with its quotes doubled, when it holds a comma, a double quote
// or a line feed; as it is otherwise.
QString cueLogField(const QString& field);
// The whole file, UTF-8.
QByteArray cueLogCSV(const QList<CueLogEntry>& entries);
// The file beside the movie at `moviePath` with its extension replaced by `extension`.
QString besideMovie(const QString& moviePath, const QString& extension);
// Where the cue log of the movie at `moviePath` goes: the same path with the extension "csv".
QString cueLogPath(const QString& moviePath);
// Writes the file in one piece (a partly written file never replaces it); answers the
// system's description of the failure, or nothing.
std::optional<QString> writeCueLog(const QString& path, const QList<CueLogEntry>& entries);

} // namespace orvane
