#include "app/RecordingNames.h"

#include <QDir>
#include <QFileInfo>

namespace orvane {

QString recordingStamp(const QDateTime& localTime)
{
    return localTime.toString(QStringLiteral("yyyy-MM-dd HH.mm.ss"));
}

QString recordingLabel(const QString& label, const QString& fallback)
{
    if (label.isEmpty())
        return fallback;
    QString name = label;
    name.replace(QLatin1Char('/'), QLatin1Char('-'));
    return name;
}

QString mainCameraFallback()
{
    return QStringLiteral("Orvane");
}

QString extraCameraFallback(int index)
{
    return QStringLiteral("Camera %1").arg(index + 2);
}

QString moviePath(const QString& folder, const QString& label, const QString& stamp)
{
    const QDir dir(folder);
    const QString base = label + QLatin1Char(' ') + stamp;
    QString path = dir.filePath(base + QStringLiteral(".mov"));
    for (int copy = 2; QFileInfo::exists(path) && copy < 1000; ++copy)
        path = dir.filePath(base + QStringLiteral(" %1.mov").arg(copy));
    return path;
}

} // namespace orvane
