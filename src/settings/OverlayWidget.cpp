#include "settings/OverlayWidget.h"

namespace orvane {

QString rawValue(OverlayWidget widget)
{
    switch (widget) {
    case OverlayWidget::status:
        return QStringLiteral("status");
    case OverlayWidget::cues:
        return QStringLiteral("cues");
    case OverlayWidget::fields:
        return QStringLiteral("fields");
    case OverlayWidget::qlab:
        return QStringLiteral("qlab");
    case OverlayWidget::watermark:
        return QStringLiteral("watermark");
    }
    return {};
}

std::optional<OverlayWidget> overlayWidgetFromRawValue(QStringView text)
{
    for (OverlayWidget widget : allOverlayWidgets) {
        if (text == rawValue(widget))
            return widget;
    }
    return std::nullopt;
}

} // namespace orvane
