#pragma once

#include "base/Clock.h"
#include "capture/FramePreview.h"
#include "overlay/OverlayContent.h"
#include "overlay/OverlayRenderer.h"
#include "settings/OverlayWidget.h"
#include "settings/WidgetPlacement.h"

#include <QTimer>
#include <QWidget>

#include <optional>
#include <vector>

namespace orvane {

class AppModel;

// The picture of the layout editor: the main camera's newest picture (or a dark frame of the
// video size) with the overlay drawn over it by the renderer, each widget framed and named.
// Dragging a panel moves it; the new place is shown at once and written to the overlay layout
// when the mouse is let go. The arrow keys nudge the selected panel by one pixel of the frame,
// ten with Shift. When the show gives a widget nothing to show, the editor's sample fills it,
// so every widget can be seen and placed. Main thread only.
class LayoutCanvas : public QWidget {
    Q_OBJECT

public:
    explicit LayoutCanvas(AppModel& model, QWidget* parent = nullptr);

    // Where the frame is shown, in this widget's coordinates (the frame fitted, centred).
    QRectF pictureRect() const;
    // Where a widget's panel is shown, in this widget's coordinates; none when it is not drawn.
    std::optional<QRectF> panelRect(OverlayWidget widget);
    std::optional<OverlayWidget> selectedWidget() const { return selected_; }

    QSize sizeHint() const override;

    // A name for each widget ("Status", "Cues", ...).
    static QString widgetName(OverlayWidget widget);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    // Tab and Shift+Tab choose the next or the previous panel drawn, so that the keyboard
    // alone can place every widget.
    bool focusNextPrevChild(bool next) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    // A panel being dragged: the grabbed point inside the panel and the place so far, in
    // frame pixels.
    struct Drag {
        OverlayWidget widget;
        QPointF grab;
        QSizeF panel;
        WidgetPlacement placement;
        bool moved = false;
    };

    // The frame's pixel size: the newest picture's, else the video size, else 1920 x 1080.
    QSizeF frameSize() const;
    double shownScale() const;
    QPointF toFrame(QPointF widgetPoint) const;
    // What the editor draws: the show's content, each empty widget filled from the sample,
    // with the current look and the drag under way.
    OverlayContent content(WallTime now) const;
    std::vector<OverlayRenderer::Arranged> arrange();
    // The placement that puts a panel of `panel` size with its top left at `topLeft` (frame
    // pixels, kept inside the frame), keeping the widget's anchor.
    WidgetPlacement placementFor(OverlayWidget widget, QPointF topLeft, QSizeF panel) const;
    void writePlacement(OverlayWidget widget, const WidgetPlacement& placement);
    void nudge(QPointF by);

    AppModel& model_;
    OverlayRenderer renderer_;
    FramePreview preview_;
    QTimer repaint_{this};
    std::optional<Drag> drag_;
    std::optional<OverlayWidget> selected_;
};

} // namespace orvane
