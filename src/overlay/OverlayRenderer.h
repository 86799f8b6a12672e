#pragma once

#include "base/Checks.h"
#include "base/Clock.h"
#include "overlay/OverlayContent.h"
#include "overlay/Panel.h"
#include "overlay/YuvPlanes.h"
#include "settings/OverlayWidget.h"
#include "settings/WidgetPlacement.h"

#include <QFont>
#include <QImage>
#include <QRectF>
#include <QSizeF>

#include <memory>
#include <variant>
#include <vector>

class QPainter;

namespace orvane {

// Draws an OverlayContent over one video frame at the frame's own size. Used on one thread
// at a time (each capture thread keeps its own renderer); needs a QGuiApplication in the
// process but no GUI-thread-only API. It keeps the text it shaped and the watermark it
// composed between frames, so a frame whose content and size are unchanged reshapes only
// the figures that move (clock, timecode, part status).
class OverlayRenderer {
public:
    // The fonts for one frame size, every size a multiple of `unit`.
    struct Style {
        double unit = 1;
        QFont caption;           // semibold, 14 units
        QFont captionMonospaced; // semibold, equal-width digits, 15 units
        QFont value;             // semibold, equal-width digits, 44 units
        QFont heading;           // semibold, 26 units
        QFont monospaced;        // semibold, equal-width digits, 26 units
        QFont detail;            // regular, 21 units
        QFont part;              // regular, 18 units
        QFont partNumber;        // semibold, equal-width digits, 18 units

        static Style forUnit(double unit);
    };

    // The watermark item: its text (possibly empty) right-aligned at the top, the image
    // fitted below it.
    struct Watermark {
        TextLine text;
        QImage image;     // null when there is none to draw
        QSizeF imageSize; // the fitted size in pixels
        double imageGap = 0;
        double opacity = 1;
        double shadowBlur = 0;
    };
    using Drawing = std::variant<Panel, Watermark>;

    // One placed item. `frame` is in frame pixels with Qt's origin (top left, y downward).
    struct Arranged {
        OverlayWidget widget;
        QRectF frame;
        Style style;
        Drawing drawing;
    };

    OverlayRenderer();
    ~OverlayRenderer();
    OverlayRenderer(const OverlayRenderer&) = delete;
    OverlayRenderer& operator=(const OverlayRenderer&) = delete;

    // Blends the overlay in place into an I420 frame (a camera's frame): each item is drawn
    // into a premultiplied RGBA layer that covers only that item, converted once (see
    // YuvLayer) and blended over the planes. A layer is drawn again only when what it shows
    // changed (the status panel's timecode does at every frame; a panel without moving
    // figures never does). Nothing is drawn when the content is disabled.
    void draw(const OverlayContent& content, const YuvPlanes& frame, WallTime now);
    // Draws into a painter whose device is `size` pixels (the layout editor's canvas).
    void draw(const OverlayContent& content, QPainter& painter, QSizeF size, WallTime now);

    // The layout step alone: one entry per widget that has something to show, in widget
    // order (status, cues, fields, QLab, watermark).
    std::vector<Arranged> arrange(const OverlayContent& content, QSizeF size, WallTime now);

    // min(width / 1920, height / 1080) x scale.
    static double unitFor(QSizeF size, double scale);
    // Where a panel of `panel` size goes in a frame of `frame` size, in Qt's coordinates. The
    // placement's fractions count from the bottom left, y upward; the panel is kept inside
    // the frame unless it is larger, in which case its bottom-left corner is on the frame's.
    static QRectF place(const WidgetPlacement& placement, QSizeF panel, QSizeF frame);

    class Cache; // what is kept between frames; opaque

    // How many item layers were drawn since the renderer was made (the others were reused).
    int layersDrawn() const { return layersDrawn_; }

private:
    int layersDrawn_ = 0;
    ThreadCheck thread_; // the thread that made it draws with it
    std::unique_ptr<Cache> cache_;
};

} // namespace orvane
