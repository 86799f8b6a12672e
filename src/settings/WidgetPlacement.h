#pragma once

#include "settings/OverlayWidget.h"

#include <QJsonObject>
#include <QJsonValue>

#include <optional>

namespace orvane {

// Where one overlay widget sits, as fractions of the frame. (x, y) is a point of the frame
// with the origin at the bottom left and y upward; (anchorX, anchorY) is the point of the
// panel that lies on it, (0, 0) the panel's bottom-left corner and (1, 1) its top-right.
// A plain value.
struct WidgetPlacement {
    double x = 0.5;
    double y = 0.5;
    double anchorX = 0.5;
    double anchorY = 0.5;

    // The place of a widget in a fresh installation: 32 pixels of the 1920 x 1080 design
    // frame in from the frame's edges.
    static WidgetPlacement defaultFor(OverlayWidget widget);

    // {"x": …, "y": …, "anchorX": …, "anchorY": …}; every key is required on decoding.
    QJsonObject toJson() const;
    static std::optional<WidgetPlacement> fromJson(const QJsonValue& json);

    friend bool operator==(const WidgetPlacement&, const WidgetPlacement&) = default;
};

} // namespace orvane
