#include "settings/WidgetPlacement.h"

#include "settings/JsonFields.h"

namespace orvane {

namespace {

constexpr double kNearLeft = 32.0 / 1920.0;
constexpr double kNearRight = 1888.0 / 1920.0;
constexpr double kNearBottom = 32.0 / 1080.0;
constexpr double kNearTop = 1048.0 / 1080.0;

} // namespace

WidgetPlacement WidgetPlacement::defaultFor(OverlayWidget widget)
{
    switch (widget) {
    case OverlayWidget::status:
        return {kNearRight, kNearBottom, 1.0, 0.0};
    case OverlayWidget::cues:
        return {kNearRight, 0.5, 1.0, 0.5};
    case OverlayWidget::fields:
        return {kNearLeft, kNearTop, 0.0, 1.0};
    case OverlayWidget::qlab:
        return {kNearLeft, 0.5, 0.0, 0.5};
    case OverlayWidget::watermark:
        return {kNearRight, kNearTop, 1.0, 1.0};
    }
    return {}; // the centre of the frame
}

QJsonObject WidgetPlacement::toJson() const
{
    return QJsonObject{{"x", x}, {"y", y}, {"anchorX", anchorX}, {"anchorY", anchorY}};
}

std::optional<WidgetPlacement> WidgetPlacement::fromJson(const QJsonValue& json)
{
    if (!json.isObject())
        return std::nullopt;
    const QJsonObject object = json.toObject();
    const auto x = json::number(object, "x");
    const auto y = json::number(object, "y");
    const auto anchorX = json::number(object, "anchorX");
    const auto anchorY = json::number(object, "anchorY");
    if (!x || !y || !anchorX || !anchorY)
        return std::nullopt;
    return WidgetPlacement{*x, *y, *anchorX, *anchorY};
}

} // namespace orvane
