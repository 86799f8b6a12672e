#pragma once

#include "settings/OverlayWidget.h"
#include "settings/WidgetPlacement.h"

#include <QJsonObject>
#include <QJsonValue>

#include <map>
#include <optional>

namespace orvane {

// Where each overlay widget goes. A widget without an entry is drawn at its default
// placement. A plain value.
struct OverlayLayout {
    std::map<OverlayWidget, WidgetPlacement> placements;

    // The layout of a fresh installation and of a reset: every widget at its default place.
    static OverlayLayout defaultLayout();

    // The widget's entry, else its default placement.
    WidgetPlacement placement(OverlayWidget widget) const;
    // Stores an entry, as the layout editor does when a widget is dragged.
    void setPlacement(OverlayWidget widget, const WidgetPlacement& placement);
    // Puts every widget back at its default place.
    void reset();

    // {"placements": ["status", {…}, "cues", {…}, …]}: the entries as one array of
    // alternating widget raw value and placement, in widget order. Decoding fails on an odd
    // count, an unknown widget or a bad placement.
    QJsonObject toJson() const;
    static std::optional<OverlayLayout> fromJson(const QJsonValue& json);

    friend bool operator==(const OverlayLayout&, const OverlayLayout&) = default;
};

} // namespace orvane
