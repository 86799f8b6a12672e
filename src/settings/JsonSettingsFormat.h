#pragma once

#include <QSettings>

namespace orvane {

// The file format of Orvane's defaults store, registered with QSettings: one JSON object
// whose members are the keys. Values keep their JSON types: true and false read back as
// bool, whole numbers as qint64, other numbers as double, text as QString, and arrays,
// objects and null as a QJsonValue. A file that is not a JSON object does not load (the
// store then reports QSettings::FormatError and holds no keys). Any thread.
QSettings::Format jsonSettingsFormat();

} // namespace orvane
