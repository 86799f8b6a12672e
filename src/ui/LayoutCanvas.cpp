#include "ui/LayoutCanvas.h"

#include "app/AppModel.h"
#include "capture/Frame.h"
#include "overlay/YuvPlanes.h"

#include <QFontMetricsF>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>

#include <algorithm>
#include <cmath>

namespace orvane {

namespace {

constexpr QSize kDesignFrame{1920, 1080};
// How often the picture is drawn again while shown: the camera moves, and so does the clock.
constexpr int kRepaintMilliseconds = 66;

const QColor kBackground{0x10, 0x10, 0x12};
const QColor kEmptyFrame{0x1c, 0x1c, 0x1e};
// The camera's picture already carries the overlay as it stands; dimmed, the panels being
// placed stand out from it.
const QColor kDimming{0, 0, 0, 120};
const QColor kFrameLine{255, 255, 255, 150};
const QColor kSelectedLine{0x4c, 0xa6, 0xff};

} // namespace

LayoutCanvas::LayoutCanvas(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    setObjectName(QStringLiteral("layoutCanvas"));
    setFocusPolicy(Qt::StrongFocus);
    setMouseTracking(false);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    repaint_.setInterval(kRepaintMilliseconds);
    connect(&repaint_, &QTimer::timeout, this, qOverload<>(&QWidget::update));
    connect(&model_.settings(), &AppSettings::overlayLayoutChanged, this,
            qOverload<>(&QWidget::update));
}

QString LayoutCanvas::widgetName(OverlayWidget widget)
{
    switch (widget) {
    case OverlayWidget::status:
        return tr("Status");
    case OverlayWidget::cues:
        return tr("Cues");
    case OverlayWidget::fields:
        return tr("Fields");
    case OverlayWidget::qlab:
        return tr("QLab");
    case OverlayWidget::watermark:
        return tr("Watermark");
    }
    return {};
}

QSize LayoutCanvas::sizeHint() const
{
    return kDesignFrame / 2;
}

QSizeF LayoutCanvas::frameSize() const
{
    if (const auto frame = model_.engine().latestFrame();
        frame && frame->width > 0 && frame->height > 0)
        return QSizeF(frame->width, frame->height);
    if (const auto size = model_.videoSize(); size && !size->isEmpty())
        return QSizeF(*size);
    return QSizeF(kDesignFrame);
}

double LayoutCanvas::shownScale() const
{
    const QSizeF frame = frameSize();
    return std::max(0.0, std::min(width() / frame.width(), height() / frame.height()));
}

QRectF LayoutCanvas::pictureRect() const
{
    const QSizeF shown = frameSize() * shownScale();
    return QRectF(QPointF(std::floor((width() - shown.width()) / 2),
                          std::floor((height() - shown.height()) / 2)),
                  shown);
}

QPointF LayoutCanvas::toFrame(QPointF widgetPoint) const
{
    const double scale = shownScale();
    if (scale <= 0)
        return {};
    return (widgetPoint - pictureRect().topLeft()) / scale;
}

OverlayContent LayoutCanvas::content(WallTime now) const
{
    AppSettings& settings = model_.settings();
    const OverlayLook look = settings.currentLook();
    const OverlayContent sample = sampleOverlayContent(now);

    OverlayContent content = model_.overlayFeed().content();
    if (!content.cue && !content.nextCue && content.parts.empty()) {
        content.cue = sample.cue;
        content.nextCue = sample.nextCue;
        content.parts = sample.parts;
    }
    if (content.fields.empty())
        content.fields = sample.fields;
    if (content.qlabCues.empty())
        content.qlabCues = sample.qlabCues;

    content.isEnabled = true; // even when the overlay is off, its layout can be edited
    content.layout = look.layout;
    content.scale = look.drawnScale();
    content.opacity = look.opacity;
    content.showsClock = look.showsClock;
    content.showsDate = look.showsDate;
    content.showsTimecode = look.showsTimecode;
    content.cameraLabel = settings.cameraLabel();
    content.watermarkImage = model_.watermarkImage();
    content.watermarkText = look.watermarkText;
    if (content.watermarkText.isEmpty() && !content.watermarkImage)
        content.watermarkText = sample.watermarkText;
    content.watermarkOpacity = look.watermarkOpacity;

    if (drag_)
        content.layout.setPlacement(drag_->widget, drag_->placement);
    return content;
}

std::vector<OverlayRenderer::Arranged> LayoutCanvas::arrange()
{
    const WallTime now = Clock::system().wallNow();
    return renderer_.arrange(content(now), frameSize(), now);
}

std::optional<QRectF> LayoutCanvas::panelRect(OverlayWidget widget)
{
    const double scale = shownScale();
    const QPointF origin = pictureRect().topLeft();
    for (const auto& item : arrange())
        if (item.widget == widget)
            return QRectF(origin + item.frame.topLeft() * scale, item.frame.size() * scale);
    return std::nullopt;
}

WidgetPlacement LayoutCanvas::placementFor(OverlayWidget widget, QPointF topLeft,
                                           QSizeF panel) const
{
    const QSizeF frame = frameSize();
    const double left = std::clamp(topLeft.x(), 0.0, std::max(0.0, frame.width() - panel.width()));
    const double top = std::clamp(topLeft.y(), 0.0, std::max(0.0, frame.height() - panel.height()));
    const double bottom = frame.height() - top - panel.height(); // placements count from below

    WidgetPlacement placement = model_.settings().overlayLayout().placement(widget);
    placement.x = (left + placement.anchorX * panel.width()) / frame.width();
    placement.y = (bottom + placement.anchorY * panel.height()) / frame.height();
    return placement;
}

void LayoutCanvas::writePlacement(OverlayWidget widget, const WidgetPlacement& placement)
{
    OverlayLayout layout = model_.settings().overlayLayout();
    layout.setPlacement(widget, placement);
    model_.settings().setOverlayLayout(layout);
}

void LayoutCanvas::nudge(QPointF by)
{
    if (!selected_)
        return;
    for (const auto& item : arrange())
        if (item.widget == *selected_)
            writePlacement(item.widget,
                           placementFor(item.widget, item.frame.topLeft() + by, item.frame.size()));
    update();
}

void LayoutCanvas::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), kBackground);
    const QRectF picture = pictureRect();
    const QSize shown = picture.size().toSize();
    if (shown.isEmpty())
        return;

    const WallTime now = Clock::system().wallNow();
    const QSizeF frame = frameSize();
    QImage image;
    if (const auto latest = model_.engine().latestFrame()) {
        image = preview_.convert(latest->planes(), shown);
        QPainter(&image).fillRect(image.rect(), kDimming);
    } else {
        image = QImage(shown, QImage::Format_RGB32);
        image.fill(kEmptyFrame);
    }
    {
        QPainter overlay(&image);
        overlay.scale(shown.width() / frame.width(), shown.height() / frame.height());
        renderer_.draw(content(now), overlay, frame, now);
    }
    painter.drawImage(picture.topLeft(), image);

    // Each panel framed, with its name on a tab above it (inside when there is no room).
    painter.setRenderHint(QPainter::Antialiasing);
    const double scale = shownScale();
    const QFontMetricsF metrics(font());
    for (const auto& item : arrange()) {
        const QRectF panel(picture.topLeft() + item.frame.topLeft() * scale,
                           item.frame.size() * scale);
        const bool selected = selected_ == item.widget;
        const QColor colour = selected ? kSelectedLine : kFrameLine;
        painter.setPen(QPen(colour, selected ? 2 : 1));
        painter.setBrush(Qt::NoBrush);
        painter.drawRect(panel.adjusted(0.5, 0.5, -0.5, -0.5));

        const QString name = widgetName(item.widget);
        const QSizeF tab(metrics.horizontalAdvance(name) + 10, metrics.height() + 2);
        QRectF label(QPointF(panel.left(), panel.top() - tab.height()), tab);
        if (label.top() < picture.top())
            label.moveTop(panel.top());
        painter.fillRect(label, colour);
        painter.setPen(selected ? Qt::white : Qt::black);
        painter.drawText(label, Qt::AlignCenter, name);
    }
}

void LayoutCanvas::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton)
        return QWidget::mousePressEvent(event);
    const QPointF at = toFrame(event->position());
    const auto items = arrange();
    // The last drawn lies on top.
    const auto hit = std::find_if(items.rbegin(), items.rend(),
                                  [&](const auto& item) { return item.frame.contains(at); });
    drag_.reset();
    selected_.reset();
    if (hit != items.rend()) {
        selected_ = hit->widget;
        drag_ = Drag{hit->widget, at - hit->frame.topLeft(), hit->frame.size(),
                     model_.settings().overlayLayout().placement(hit->widget)};
        setCursor(Qt::ClosedHandCursor);
    }
    update();
}

void LayoutCanvas::mouseMoveEvent(QMouseEvent* event)
{
    if (!drag_)
        return;
    drag_->placement =
        placementFor(drag_->widget, toFrame(event->position()) - drag_->grab, drag_->panel);
    drag_->moved = true;
    update();
}

void LayoutCanvas::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton || !drag_)
        return QWidget::mouseReleaseEvent(event);
    const Drag drag = *drag_;
    drag_.reset();
    unsetCursor();
    if (drag.moved)
        writePlacement(drag.widget, drag.placement);
    update();
}

void LayoutCanvas::keyPressEvent(QKeyEvent* event)
{
    const double step = event->modifiers() & Qt::ShiftModifier ? 10 : 1;
    switch (event->key()) {
    case Qt::Key_Left:
        return nudge({-step, 0});
    case Qt::Key_Right:
        return nudge({step, 0});
    case Qt::Key_Up:
        return nudge({0, -step});
    case Qt::Key_Down:
        return nudge({0, step});
    case Qt::Key_Escape:
        if (drag_) { // lets go without moving anything
            drag_.reset();
            unsetCursor();
            update();
            return;
        }
        break;
    default:
        break;
    }
    QWidget::keyPressEvent(event);
}

bool LayoutCanvas::focusNextPrevChild(bool next)
{
    std::vector<OverlayWidget> drawn;
    for (const auto& item : arrange())
        drawn.push_back(item.widget);
    if (drawn.empty())
        return QWidget::focusNextPrevChild(next);
    auto at = selected_ ? std::find(drawn.begin(), drawn.end(), *selected_) : drawn.end();
    if (at == drawn.end())
        selected_ = next ? drawn.front() : drawn.back();
    else if (next)
        selected_ = std::next(at) == drawn.end() ? drawn.front() : *std::next(at);
    else
        selected_ = at == drawn.begin() ? drawn.back() : *std::prev(at);
    update();
    return true;
}

void LayoutCanvas::showEvent(QShowEvent* event)
{
    repaint_.start();
    QWidget::showEvent(event);
}

void LayoutCanvas::hideEvent(QHideEvent* event)
{
    repaint_.stop();
    QWidget::hideEvent(event);
}

} // namespace orvane
