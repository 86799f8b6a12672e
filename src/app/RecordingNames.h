#pragma once

#include <QDateTime>
#include <QString>

namespace orvane {

// How recordings are named: "<label> <stamp>.mov", one movie per camera. Any thread.

// The local date and time as "2026-03-14 19.30.05": full stops between the time's parts, so
// the name is a valid file name everywhere.
QString recordingStamp(const QDateTime& localTime);
// The label as a file name: every "/" becomes "-"; an empty label gives `fallback`.
QString recordingLabel(const QString& label, const QString& fallback);
// "Orvane" for the main camera; "Camera N" for the extra camera at `index` (0 for the first
// extra camera, which is camera 2).
QString mainCameraFallback();
QString extraCameraFallback(int index);
// "<label> <stamp>.mov" in `folder`; when that file already exists (two recordings in the
// same second), " 2", " 3", ... is put before the extension rather than overwrite it.
QString moviePath(const QString& folder, const QString& label, const QString& stamp);

} // namespace orvane
