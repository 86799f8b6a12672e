#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QSettings>
#include <QVariant>

#include <optional>

namespace orvane {

// The file format of Orvane's defaults store, registered with QSettings: one JSON object
// whose members are the keys. Values keep their JSON types: true and false read back as
// bool, whole numbers as qint64, other numbers as double, text as QString, and arrays,
// objects and null as a QJsonValue. A file that is not a JSON object does not load (the
// store then reports QSettings::FormatError and holds no keys). Any thread.
QSettings::Format jsonSettingsFormat();

// A member of the settings file as the store holds it (the types above).
QVariant settingsValueFromJson(const QJsonValue& value);

// The text of a settings file as its object, or nothing when it is not exactly one JSON
// object.
std::optional<QJsonObject> settingsObjectFromText(const QByteArray& text);

// The members that can still be read from a damaged settings file: from the first "{" on,
// each member whose key and value parse is kept; a member that does not parse is skipped,
// and reading stops where the object's shape is lost. Any thread.
QJsonObject readableMembers(const QByteArray& text);

} // namespace orvane
