#include "settings/JsonFields.h"

namespace orvane::json {

std::optional<double> number(const QJsonObject& object, const QString& key)
{
    const QJsonValue value = object.value(key);
    if (!value.isDouble())
        return std::nullopt;
    return value.toDouble();
}

std::optional<bool> boolean(const QJsonObject& object, const QString& key)
{
    const QJsonValue value = object.value(key);
    if (!value.isBool())
        return std::nullopt;
    return value.toBool();
}

std::optional<QString> string(const QJsonObject& object, const QString& key)
{
    const QJsonValue value = object.value(key);
    if (!value.isString())
        return std::nullopt;
    return value.toString();
}

std::optional<QUuid> uuid(const QJsonObject& object, const QString& key)
{
    const auto text = string(object, key);
    if (!text)
        return std::nullopt;
    const QUuid id = QUuid::fromString(*text);
    if (id.isNull())
        return std::nullopt;
    return id;
}

std::optional<std::optional<QString>> optionalString(const QJsonObject& object, const QString& key)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::optional<QString>{};
    if (!value.isString())
        return std::nullopt;
    return std::optional<QString>{value.toString()};
}

QString uuidText(const QUuid& id)
{
    return id.toString(QUuid::WithoutBraces).toUpper();
}

} // namespace orvane::json
