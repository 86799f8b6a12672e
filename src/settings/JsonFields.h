#pragma once

#include <QJsonObject>
#include <QString>
#include <QUuid>

#include <optional>

// Typed reads of one key of a JSON object, for the decoders of the settings' JSON values.
// Each answers nothing when the key is missing or holds another type; a decoder that needs
// the key then fails as a whole.
namespace orvane::json {

std::optional<double> number(const QJsonObject& object, const QString& key);
std::optional<bool> boolean(const QJsonObject& object, const QString& key);
std::optional<QString> string(const QJsonObject& object, const QString& key);
// A UUID in its standard text form, in either case, with or without braces.
std::optional<QUuid> uuid(const QJsonObject& object, const QString& key);

// An optional text: a missing key or null is none (answered as an empty outer optional's
// inner none); another type fails (outer none).
std::optional<std::optional<QString>> optionalString(const QJsonObject& object, const QString& key);

// The standard text form of a UUID: upper case, without braces.
QString uuidText(const QUuid& id);

} // namespace orvane::json
