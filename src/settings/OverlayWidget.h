#pragma once

#include <QString>
#include <QStringView>

#include <array>
#include <optional>

namespace orvane {

// One of the five panels of the overlay that the operator can move on the picture. The order
// of the cases is the order in which the widgets are walked (and drawn). A plain value.
enum class OverlayWidget {
    status,    // show name, camera label, timecode, clock, date, recording indicator
    cues,      // current and next Eos cue with the cue's part rows
    fields,    // custom fields
    qlab,      // running QLab cues
    watermark, // watermark text and image
};

inline constexpr std::array<OverlayWidget, 5> allOverlayWidgets{
    OverlayWidget::status, OverlayWidget::cues, OverlayWidget::fields, OverlayWidget::qlab,
    OverlayWidget::watermark};

// The widget's text in saved layouts: "status", "cues", "fields", "qlab", "watermark".
QString rawValue(OverlayWidget widget);
std::optional<OverlayWidget> overlayWidgetFromRawValue(QStringView text);

} // namespace orvane
