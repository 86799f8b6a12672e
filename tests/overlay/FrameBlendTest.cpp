#include "overlay/FrameBlend.h"
#include "overlay/YuvLayer.h"

#include <QPainter>
#include <QTest>

using namespace orvane;

namespace {

QImage noise(QSize size, QImage::Format format)
{
    QImage image(size, format);
    for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width(); ++x)
            image.setPixel(x, y,
                           qRgb((x * 37 + y * 11) & 255, (x * 5 + y * 91) & 255, (x ^ y) & 255));
    return image;
}

int largestDifference(const QImage& a, const QImage& b)
{
    int largest = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y);
            const QRgb q = b.pixel(x, y);
            largest =
                std::max({largest, std::abs(qRed(p) - qRed(q)), std::abs(qGreen(p) - qGreen(q)),
                          std::abs(qBlue(p) - qBlue(q)), std::abs(qAlpha(p) - qAlpha(q))});
        }
    return largest;
}

} // namespace

// The overlay's own blending must look like QPainter's: same colours, same rounded corners,
// same cut, on every frame format it accepts.
class FrameBlendTest : public QObject {
    Q_OBJECT

private slots:
    void fillMatchesPainter_data()
    {
        QTest::addColumn<QImage::Format>("format");
        QTest::addColumn<QRect>("rect");
        QTest::addColumn<double>("radius");
        QTest::addColumn<QColor>("color");
        QTest::addColumn<int>("clipLeft");
        QTest::addColumn<int>("clipRight");
        const QColor panel = QColor::fromRgbF(0.04f, 0.04f, 0.04f, 0.7f);
        const QColor track(217, 217, 217, 77);
        const QColor faint(255, 255, 255, 15);
        const auto row = [](const char* name, QRect rect, double radius, QColor color,
                            int clipLeft = INT_MIN, int clipRight = INT_MAX,
                            QImage::Format format = QImage::Format_RGB32) {
            QTest::newRow(name) << format << rect << radius << color << clipLeft << clipRight;
        };
        row("panel", QRect(10, 8, 101, 57), 12.0, panel);
        row("odd width for the tail", QRect(3, 3, 7, 30), 2.0, panel);
        row("fractional radius", QRect(4, 4, 80, 36), 5.33, faint);
        row("square corners", QRect(4, 4, 80, 36), 0.0, QColor(200, 30, 40, 128));
        row("radius above half the height", QRect(4, 4, 80, 20), 30.0, panel);
        row("cut on the right", QRect(4, 4, 100, 36), 8.0, track, INT_MIN, 47);
        row("cut inside the corner", QRect(4, 4, 100, 36), 8.0, track, INT_MIN, 8);
        row("cut on the left", QRect(4, 4, 100, 36), 8.0, faint, 47);
        row("partly outside the frame", QRect(-20, 90, 80, 60), 12.0, panel);
        row("opaque", QRect(10, 10, 50, 50), 10.0, QColor(255, 59, 48));
        row("ARGB32", QRect(10, 8, 101, 57), 12.0, panel, INT_MIN, INT_MAX, QImage::Format_ARGB32);
        row("ARGB32 premultiplied", QRect(10, 8, 101, 57), 12.0, panel, INT_MIN, INT_MAX,
            QImage::Format_ARGB32_Premultiplied);
    }
    void fillMatchesPainter()
    {
        QFETCH(QImage::Format, format);
        QFETCH(QRect, rect);
        QFETCH(double, radius);
        QFETCH(QColor, color);
        QFETCH(int, clipLeft);
        QFETCH(int, clipRight);

        QImage ours = noise(QSize(128, 128), format);
        QImage theirs = ours.copy();
        FrameBlend::fillRoundedRect(ours, rect, radius, color, clipLeft, clipRight);

        QPainter painter(&theirs);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setClipRect(QRect(QPoint(std::max(clipLeft, -1000), -1000),
                                  QPoint(std::min(clipRight, 10000) - 1, 10000)));
        painter.setPen(Qt::NoPen);
        painter.setBrush(color);
        const double r = std::min(radius, std::min(rect.width(), rect.height()) / 2.0);
        painter.drawRoundedRect(QRectF(rect), r, r);
        painter.end();

        // Antialiased corner pixels may differ by a few levels (up to 24 at full contrast, as
        // coverage is estimated from the distance to the corner); a wrong colour, a missing
        // tail or an ignored cut differ by far more.
        QVERIFY2(largestDifference(ours, theirs) <= 24,
                 qPrintable(QString::number(largestDifference(ours, theirs))));
        QVERIFY(largestDifference(ours, noise(QSize(128, 128), format)) > 0);
    }

    void imageMatchesPainter_data()
    {
        QTest::addColumn<QPoint>("at");
        QTest::newRow("inside") << QPoint(20, 30);
        QTest::newRow("over the top-left edge") << QPoint(-13, -7);
        QTest::newRow("over the bottom-right edge") << QPoint(100, 110);
    }
    void imageMatchesPainter()
    {
        QFETCH(QPoint, at);
        QImage overlay(41, 23, QImage::Format_ARGB32_Premultiplied);
        overlay.fill(Qt::transparent);
        {
            QPainter painter(&overlay);
            painter.setRenderHint(QPainter::Antialiasing);
            painter.setBrush(QColor(255, 255, 255, 180));
            painter.setPen(Qt::NoPen);
            painter.drawEllipse(QRectF(2, 2, 37, 19));
        }
        QImage ours = noise(QSize(128, 128), QImage::Format_RGB32);
        QImage theirs = ours.copy();
        FrameBlend::drawImage(ours, at, overlay, 1.0);
        QPainter painter(&theirs);
        painter.drawImage(at, overlay);
        painter.end();
        QVERIFY(largestDifference(ours, theirs) <= 2);
    }

    // The progress fill is blended once, in the colour of the track and the fill together.
    void overComposesTwoColours()
    {
        QImage once = noise(QSize(32, 32), QImage::Format_RGB32);
        QImage twice = once.copy();
        const QColor track = QColor::fromRgbF(1, 1, 1, 0.06f);
        const QColor fill = QColor::fromRgbF(0.85f, 0.85f, 0.85f, 0.3f);
        FrameBlend::fillRoundedRect(twice, twice.rect(), 0, track);
        FrameBlend::fillRoundedRect(twice, twice.rect(), 0, fill);
        FrameBlend::fillRoundedRect(once, once.rect(), 0, FrameBlend::over(fill, track));
        QVERIFY(largestDifference(once, twice) <= 2);
    }

    // A layer blended into I420 planes looks as if it had been drawn over the picture in RGB:
    // each pixel's luma, and each chroma sample the mean of its 2 x 2 block, so a panel's edge
    // that crosses a block mixes the colours by the share it covers.
    void layerBlendsIntoYuvAsInRgb_data()
    {
        QTest::addColumn<QColor>("paint");
        QTest::addColumn<QRect>("covered"); // of the 4 x 4 layer, placed at (2, 2)
        QTest::newRow("opaque red, whole blocks") << QColor(220, 30, 20) << QRect(0, 0, 4, 4);
        QTest::newRow("opaque red, one column of each block")
            << QColor(220, 30, 20) << QRect(1, 0, 2, 4);
        QTest::newRow("opaque white, one pixel") << QColor(Qt::white) << QRect(1, 1, 1, 1);
        QTest::newRow("translucent panel grey")
            << QColor::fromRgbF(0.04f, 0.04f, 0.04f, 0.7f) << QRect(0, 0, 3, 4);
        QTest::newRow("translucent green") << QColor(40, 200, 60, 100) << QRect(0, 2, 4, 2);
        QTest::newRow("nothing") << QColor(Qt::transparent) << QRect(0, 0, 4, 4);
    }
    void layerBlendsIntoYuvAsInRgb()
    {
        QFETCH(QColor, paint);
        QFETCH(QRect, covered);
        // A picture whose colour is even over each 2 x 2 block, as a 4:2:0 frame holds it.
        QImage picture(8, 8, QImage::Format_RGB32);
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 8; ++x)
                picture.setPixel(x, y, qRgb(x / 2 * 60, 200 - y / 2 * 50, 90 + x / 2 * 40));
        QImage layer(4, 4, QImage::Format_ARGB32_Premultiplied);
        layer.fill(Qt::transparent);
        QPainter(&layer).fillRect(covered, paint);
        QImage drawn = picture.copy();
        QPainter(&drawn).drawImage(2, 2, layer);
        const YuvImage expected = YuvImage::fromRgb(drawn);

        const YuvImage frame = YuvImage::fromRgb(picture);
        YuvLayer converted;
        converted.convert(layer);
        converted.blend(frame.planes(), 2, 2);
        const YuvPlanes a = frame.planes();
        const YuvPlanes b = expected.planes();
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 8; ++x)
                QVERIFY2(std::abs(a.y[y * a.yStride + x] - b.y[y * b.yStride + x]) <= 2,
                         qPrintable(QStringLiteral("luma at %1,%2").arg(x).arg(y)));
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x)
                for (auto plane : {&YuvPlanes::cb, &YuvPlanes::cr})
                    QVERIFY2(std::abs((a.*plane)[y * a.cStride + x] -
                                      (b.*plane)[y * b.cStride + x]) <= 2,
                             qPrintable(QStringLiteral("chroma at %1,%2").arg(x).arg(y)));
    }
};

QTEST_GUILESS_MAIN(FrameBlendTest)
#include "FrameBlendTest.moc"
