#include "settings/JsonSettingsFormat.h"

#include <QIODevice>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

namespace orvane {

namespace {

// Whole numbers that a double holds exactly: beyond 2^53 a JSON number is read as a double.
constexpr double kLargestExactWhole = 9007199254740992.0;

QVariant variantFromJson(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool();
    case QJsonValue::Double: {
        const double number = value.toDouble();
        if (std::floor(number) == number && std::fabs(number) <= kLargestExactWhole)
            return qint64(number);
        return number;
    }
    case QJsonValue::String:
        return value.toString();
    case QJsonValue::Null:
    case QJsonValue::Array:
    case QJsonValue::Object:
    case QJsonValue::Undefined:
        return QVariant::fromValue(value);
    }
    return QVariant::fromValue(value);
}

bool readJsonSettings(QIODevice& device, QSettings::SettingsMap& map)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(device.readAll(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return false;
    const QJsonObject object = document.object();
    for (auto member = object.begin(); member != object.end(); ++member)
        map.insert(member.key(), variantFromJson(member.value()));
    return true;
}

bool writeJsonSettings(QIODevice& device, const QSettings::SettingsMap& map)
{
    QJsonObject object;
    for (auto entry = map.begin(); entry != map.end(); ++entry)
        object.insert(entry.key(), QJsonValue::fromVariant(entry.value()));
    const QByteArray text = QJsonDocument(object).toJson(QJsonDocument::Indented);
    return device.write(text) == text.size();
}

} // namespace

QSettings::Format jsonSettingsFormat()
{
    static const QSettings::Format format = QSettings::registerFormat(
        QStringLiteral("json"), &readJsonSettings, &writeJsonSettings, Qt::CaseSensitive);
    return format;
}

} // namespace orvane
