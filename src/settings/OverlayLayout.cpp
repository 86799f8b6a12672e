#include "settings/OverlayLayout.h"

#include <QJsonArray>

namespace orvane {

OverlayLayout OverlayLayout::defaultLayout()
{
    OverlayLayout layout;
    layout.reset();
    return layout;
}

WidgetPlacement OverlayLayout::placement(OverlayWidget widget) const
{
    const auto entry = placements.find(widget);
    if (entry != placements.end())
        return entry->second;
    return WidgetPlacement::defaultFor(widget);
}

void OverlayLayout::setPlacement(OverlayWidget widget, const WidgetPlacement& placement)
{
    placements[widget] = placement;
}

void OverlayLayout::reset()
{
    placements.clear();
    for (OverlayWidget widget : allOverlayWidgets)
        placements[widget] = WidgetPlacement::defaultFor(widget);
}

QJsonObject OverlayLayout::toJson() const
{
    QJsonArray alternating;
    for (const auto& [widget, placement] : placements) {
        alternating.append(rawValue(widget));
        alternating.append(placement.toJson());
    }
    return QJsonObject{{"placements", alternating}};
}

std::optional<OverlayLayout> OverlayLayout::fromJson(const QJsonValue& json)
{
    const QJsonValue entries = json.toObject().value(QStringLiteral("placements"));
    if (!entries.isArray())
        return std::nullopt;
    const QJsonArray alternating = entries.toArray();
    if (alternating.size() % 2 != 0)
        return std::nullopt;
    OverlayLayout layout;
    for (qsizetype at = 0; at < alternating.size(); at += 2) {
        const auto widget = overlayWidgetFromRawValue(alternating.at(at).toString());
        const auto placement = WidgetPlacement::fromJson(alternating.at(at + 1));
        if (!alternating.at(at).isString() || !widget || !placement)
            return std::nullopt;
        layout.placements[*widget] = *placement;
    }
    return layout;
}

} // namespace orvane
