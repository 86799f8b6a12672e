#include "settings/OverlayLook.h"

#include "settings/JsonFields.h"

namespace orvane {

QJsonObject OverlayLook::toJson() const
{
    return QJsonObject{
        {"layout", layout.toJson()},
        {"scale", scale},
        {"opacity", opacity},
        {"showsClock", showsClock},
        {"showsDate", showsDate},
        {"showsTimecode", showsTimecode},
        {"showsCue", showsCue},
        {"showsNextCue", showsNextCue},
        {"showsShowName", showsShowName},
        {"showsFields", showsFields},
        {"showsQLabCues", showsQLabCues},
        {"watermarkText", watermarkText},
        {"watermarkOpacity", watermarkOpacity},
    };
}

std::optional<OverlayLook> OverlayLook::fromJson(const QJsonValue& json)
{
    if (!json.isObject())
        return std::nullopt;
    const QJsonObject object = json.toObject();
    const auto layout = OverlayLayout::fromJson(object.value(QStringLiteral("layout")));
    const auto scale = json::number(object, "scale");
    const auto opacity = json::number(object, "opacity");
    const auto showsClock = json::boolean(object, "showsClock");
    const auto showsDate = json::boolean(object, "showsDate");
    const auto showsTimecode = json::boolean(object, "showsTimecode");
    const auto showsCue = json::boolean(object, "showsCue");
    const auto showsNextCue = json::boolean(object, "showsNextCue");
    const auto showsShowName = json::boolean(object, "showsShowName");
    const auto showsFields = json::boolean(object, "showsFields");
    const auto showsQLabCues = json::boolean(object, "showsQLabCues");
    const auto watermarkText = json::string(object, "watermarkText");
    const auto watermarkOpacity = json::number(object, "watermarkOpacity");
    if (!layout || !scale || !opacity || !showsClock || !showsDate || !showsTimecode || !showsCue ||
        !showsNextCue || !showsShowName || !showsFields || !showsQLabCues || !watermarkText ||
        !watermarkOpacity)
        return std::nullopt;
    return OverlayLook{*layout,          *scale,         *opacity,       *showsClock,
                       *showsDate,       *showsTimecode, *showsCue,      *showsNextCue,
                       *showsShowName,   *showsFields,   *showsQLabCues, *watermarkText,
                       *watermarkOpacity};
}

} // namespace orvane
