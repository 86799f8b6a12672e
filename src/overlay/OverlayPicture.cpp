#include "overlay/OverlayPicture.h"

#include "overlay/OverlayRenderer.h"
#include "overlay/YuvPlanes.h"

#include <QLinearGradient>
#include <QPainter>
#include <QRadialGradient>

namespace orvane {

QImage OverlayPicture::backdrop(QSize size)
{
    QImage image(size, QImage::Format_RGB32);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    const double width = size.width();
    const double height = size.height();

    QLinearGradient house(0, 0, 0, height);
    house.setColorAt(0, QColor(14, 17, 26));
    house.setColorAt(0.62, QColor(30, 34, 48));
    house.setColorAt(0.63, QColor(58, 46, 38));
    house.setColorAt(1, QColor(34, 27, 24));
    painter.fillRect(image.rect(), house);

    auto pool = [&](double x, double y, double radius, QColor colour) {
        QRadialGradient light(QPointF(x, y), radius);
        light.setColorAt(0, colour);
        colour.setAlpha(0);
        light.setColorAt(1, colour);
        painter.setPen(Qt::NoPen);
        painter.setBrush(light);
        painter.drawEllipse(QPointF(x, y), radius, radius);
    };
    pool(width * 0.38, height * 0.72, height * 0.30, QColor(255, 196, 120, 150));
    pool(width * 0.62, height * 0.70, height * 0.24, QColor(120, 150, 255, 110));
    pool(width * 0.50, height * 0.35, height * 0.20, QColor(255, 230, 200, 40));
    return image;
}

QImage OverlayPicture::render(const OverlayContent& content, QSize size, WallTime now)
{
    // The road a camera frame takes: the backdrop in the pipeline's YUV layout, the overlay
    // blended into its planes, and back to RGB for people to look at.
    const YuvImage frame = YuvImage::fromRgb(backdrop(size));
    OverlayRenderer renderer;
    renderer.draw(content, frame.planes(), now);
    return frame.toRgb();
}

} // namespace orvane
