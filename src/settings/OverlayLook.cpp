#include "settings/OverlayLook.h"

#include "settings/JsonFields.h"

#include <algorithm>
#include <cmath>

namespace orvane {

namespace {

QJsonValue fieldToJson(const OverlayLayout& layout)
{
    return layout.toJson();
}

QJsonValue fieldToJson(const QJsonValue& value)
{
    return value;
}

bool readField(const QJsonObject& object, const QString& key, OverlayLayout& field)
{
    const auto layout = OverlayLayout::fromJson(object.value(key));
    if (layout)
        field = *layout;
    return layout.has_value();
}

bool readField(const QJsonObject& object, const QString& key, double& field)
{
    const auto number = json::number(object, key);
    if (number)
        field = *number;
    return number.has_value();
}

bool readField(const QJsonObject& object, const QString& key, bool& field)
{
    const auto boolean = json::boolean(object, key);
    if (boolean)
        field = *boolean;
    return boolean.has_value();
}

bool readField(const QJsonObject& object, const QString& key, QString& field)
{
    const auto text = json::string(object, key);
    if (text)
        field = *text;
    return text.has_value();
}

} // namespace

double OverlayLook::drawnScale() const
{
    if (!std::isfinite(scale))
        return OverlayLook{}.scale;
    return std::clamp(scale, kMinimumScale, kMaximumScale);
}

QJsonObject OverlayLook::toJson() const
{
    QJsonObject object;
#define ORVANE_LOOK_TO_JSON(Type, field, setting, Setting, fallback)                               \
    object.insert(QStringLiteral(#field), fieldToJson(field));
    ORVANE_OVERLAY_LOOK(ORVANE_LOOK_TO_JSON)
#undef ORVANE_LOOK_TO_JSON
    return object;
}

std::optional<OverlayLook> OverlayLook::fromJson(const QJsonValue& json)
{
    if (!json.isObject())
        return std::nullopt;
    const QJsonObject object = json.toObject();
    OverlayLook look;
#define ORVANE_LOOK_FROM_JSON(Type, field, setting, Setting, fallback)                             \
    if (!readField(object, QStringLiteral(#field), look.field))                                    \
        return std::nullopt;
    ORVANE_OVERLAY_LOOK(ORVANE_LOOK_FROM_JSON)
#undef ORVANE_LOOK_FROM_JSON
    return look;
}

} // namespace orvane
