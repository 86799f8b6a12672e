#include "app/CueLog.h"

#include <QFileInfo>
#include <QSaveFile>

#include <cmath>
#include <cstdint>

namespace orvane {

QString cueLogTime(double elapsed)
{
    // Negative or not-a-number times (a clock set back) count as the start.
    const std::int64_t whole =
        std::isfinite(elapsed) && elapsed > 0 ? std::int64_t(std::min(elapsed, 3.6e15)) : 0;
    return QString::asprintf("%02lld:%02lld:%02lld", static_cast<long long>(whole / 3600),
                             static_cast<long long>(whole / 60 % 60),
                             static_cast<long long>(whole % 60));
}

QString cueLogField(const QString& field)
{
    if (!field.contains(QLatin1Char(',')) && !field.contains(QLatin1Char('"')) &&
        !field.contains(QLatin1Char('\n')))
        return field;
    QString quoted = field;
    quoted.replace(QLatin1String("\""), QLatin1String("\"\""));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}

QByteArray cueLogCSV(const QList<CueLogEntry>& entries)
{
    QString text = QStringLiteral("Recording Time,Timecode,Event,Detail\n");
    for (const auto& entry : entries) {
        text += cueLogField(cueLogTime(entry.elapsed)) + QLatin1Char(',') +
                cueLogField(entry.timecode) + QLatin1Char(',') + cueLogField(entry.event) +
                QLatin1Char(',') + cueLogField(entry.detail) + QLatin1Char('\n');
    }
    return text.toUtf8();
}

QString besideMovie(const QString& moviePath, const QString& extension)
{
    const QFileInfo movie(moviePath);
    const QString suffix = movie.suffix();
    if (suffix.isEmpty() || movie.fileName() == QLatin1Char('.') + suffix)
        return moviePath + QLatin1Char('.') + extension;
    return moviePath.left(moviePath.size() - suffix.size()) + extension;
}

QString cueLogPath(const QString& moviePath)
{
    return besideMovie(moviePath, QStringLiteral("csv"));
}

std::optional<QString> writeCueLog(const QString& path, const QList<CueLogEntry>& entries)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return file.errorString();
    const QByteArray bytes = cueLogCSV(entries);
    if (file.write(bytes) != bytes.size() || !file.commit())
        return file.errorString();
    return std::nullopt;
}

} // namespace orvane
