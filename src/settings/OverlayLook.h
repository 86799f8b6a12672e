#pragma once

#include "settings/OverlayLayout.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <optional>

namespace orvane {

// Everything the operator can style about the overlay: where the widgets are, sizes, which
// items are shown and the watermark text (not the watermark image). A plain value.
struct OverlayLook {
    OverlayLayout layout = OverlayLayout::defaultLayout();
    double scale = 1.0;
    double opacity = 0.7;
    bool showsClock = true;
    bool showsDate = false;
    bool showsTimecode = true;
    bool showsCue = true;
    bool showsNextCue = true;
    bool showsShowName = false;
    bool showsFields = true;
    bool showsQLabCues = true;
    QString watermarkText;
    double watermarkOpacity = 0.6;

    // An object with the keys "layout", "scale", "opacity", "showsClock", "showsDate",
    // "showsTimecode", "showsCue", "showsNextCue", "showsShowName", "showsFields",
    // "showsQLabCues", "watermarkText" and "watermarkOpacity". Every key is required on
    // decoding: a look that lacks one is rejected, never completed with a default.
    QJsonObject toJson() const;
    static std::optional<OverlayLook> fromJson(const QJsonValue& json);

    friend bool operator==(const OverlayLook&, const OverlayLook&) = default;
};

} // namespace orvane
