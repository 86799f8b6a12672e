#pragma once

#include "settings/OverlayLayout.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <optional>

// The fields of a look, in order, one row each: X(type, field, setting, Setting, default).
// The JSON key of a field is its name; AppSettings keeps the field in the property `setting`
// (set with `setSetting()`), so a look is taken from and put back into the settings by this
// table alone.
// clang-format off
#define ORVANE_OVERLAY_LOOK(X) \
    X(OverlayLayout, layout, overlayLayout, OverlayLayout, OverlayLayout::defaultLayout()) \
    X(double, scale, overlayScale, OverlayScale, 1.0) \
    X(double, opacity, overlayOpacity, OverlayOpacity, 0.7) \
    X(bool, showsClock, showsClock, ShowsClock, true) \
    X(bool, showsDate, showsDate, ShowsDate, false) \
    X(bool, showsTimecode, showsTimecode, ShowsTimecode, true) \
    X(bool, showsCue, showsCue, ShowsCue, true) \
    X(bool, showsNextCue, showsNextCue, ShowsNextCue, true) \
    X(bool, showsShowName, showsShowName, ShowsShowName, false) \
    X(bool, showsFields, showsFields, ShowsFields, true) \
    X(bool, showsQLabCues, showsQLabCues, ShowsQLabCues, true) \
    X(QString, watermarkText, watermarkText, WatermarkText, QString()) \
    X(double, watermarkOpacity, watermarkOpacity, WatermarkOpacity, 0.6)
// clang-format on

namespace orvane {

// Everything the operator can style about the overlay: where the widgets are, sizes, which
// items are shown and the watermark text (not the watermark image). A plain value whose
// fields are the rows of ORVANE_OVERLAY_LOOK.
struct OverlayLook {
#define ORVANE_LOOK_FIELD(Type, field, setting, Setting, fallback) Type field = fallback;
    ORVANE_OVERLAY_LOOK(ORVANE_LOOK_FIELD)
#undef ORVANE_LOOK_FIELD

    // The overlay sizes that are drawn and that the controls offer. The settings keep any
    // scale (a preset or a hand-edited file may hold another); the overlay draws it within
    // these.
    static constexpr double kMinimumScale = 0.5;
    static constexpr double kMaximumScale = 2.0;
    // The scale the overlay is drawn at: `scale` within those sizes.
    double drawnScale() const;

    // An object with one key per field. Every key is required on decoding: a look that
    // lacks one is rejected, never completed with a default.
    QJsonObject toJson() const;
    static std::optional<OverlayLook> fromJson(const QJsonValue& json);

    friend bool operator==(const OverlayLook&, const OverlayLook&) = default;
};

} // namespace orvane
