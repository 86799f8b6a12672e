#include "overlay/OverlayRenderer.h"
#include "support/Golden.h"

#include "overlay/OverlayFont.h"
#include "overlay/OverlayPicture.h"
#include "overlay/YuvPlanes.h"

#include <QFontMetricsF>
#include <QGuiApplication>
#include <QPainter>
#include <QTest>

#include <cstdlib>
#include <ctime>
#include <vector>

Q_DECLARE_METATYPE(orvane::OverlayWidget)
Q_DECLARE_METATYPE(orvane::WidgetPlacement)

using namespace orvane;

namespace {

// 2026-11-23 20:15:07.250 UTC: the instant every picture is drawn at.
const WallTime kNow = WallTime(std::chrono::milliseconds(1'795'464'907'250));

const OverlayRenderer::Arranged* find(const std::vector<OverlayRenderer::Arranged>& arranged,
                                      OverlayWidget widget)
{
    for (const auto& item : arranged)
        if (item.widget == widget)
            return &item;
    return nullptr;
}

QString sizeName(QSize size)
{
    return QStringLiteral("%1x%2").arg(size.width()).arg(size.height());
}

// Pixels whose largest channel differs by more than `tolerance`.
qsizetype differingPixels(const QImage& a, const QImage& b, int tolerance)
{
    qsizetype count = 0;
    for (int y = 0; y < a.height(); ++y) {
        const auto* left = reinterpret_cast<const QRgb*>(a.constScanLine(y));
        const auto* right = reinterpret_cast<const QRgb*>(b.constScanLine(y));
        for (int x = 0; x < a.width(); ++x) {
            const int difference = std::max({std::abs(qRed(left[x]) - qRed(right[x])),
                                             std::abs(qGreen(left[x]) - qGreen(right[x])),
                                             std::abs(qBlue(left[x]) - qBlue(right[x]))});
            if (difference > tolerance)
                ++count;
        }
    }
    return count;
}

} // namespace

class OverlayRendererTest : public QObject {
    Q_OBJECT

private slots:
    // Changing figures must not make a line jitter: every font of the overlay gives the ten
    // digits one advance.
    void digitsHaveEqualAdvances_data()
    {
        QTest::addColumn<double>("unit");
        QTest::newRow("1080p") << 1.0;
        QTest::newRow("2160p") << 2.0;
        QTest::newRow("1280x1024") << 1280.0 / 1920;
    }
    void digitsHaveEqualAdvances()
    {
        QFETCH(double, unit);
        QVERIFY2(OverlayFont::isLoaded(), "the overlay's font files are installed");
        const auto style = OverlayRenderer::Style::forUnit(unit);
        for (const QFont& font :
             {style.caption, style.captionMonospaced, style.value, style.heading, style.monospaced,
              style.detail, style.part, style.partNumber}) {
            const QFontMetricsF metrics(font, &OverlayFont::measuringDevice());
            const double zero = metrics.horizontalAdvance(QLatin1Char('0'));
            QVERIFY(zero > 0);
            for (char digit = '1'; digit <= '9'; ++digit)
                QCOMPARE(metrics.horizontalAdvance(QLatin1Char(digit)), zero);
            // And a changing figure keeps its width.
            QCOMPARE(metrics.horizontalAdvance(QStringLiteral("11:11:11")),
                     metrics.horizontalAdvance(QStringLiteral("20:48:09")));
        }
    }

    // A placement puts the anchor point of the panel on its point of the frame, counted from
    // the bottom left, and keeps the panel inside the frame.
    void placement_data()
    {
        QTest::addColumn<WidgetPlacement>("placement");
        QTest::addColumn<QRectF>("frame"); // for a 200 x 100 panel in 1000 x 500, Qt's origin
        QTest::newRow("centre") << WidgetPlacement{0.5, 0.5, 0.5, 0.5}
                                << QRectF(400, 200, 200, 100);
        QTest::newRow("bottom-left corner")
            << WidgetPlacement{0, 0, 0, 0} << QRectF(0, 400, 200, 100);
        QTest::newRow("top-right corner")
            << WidgetPlacement{1, 1, 1, 1} << QRectF(800, 0, 200, 100);
        QTest::newRow("y counts upward")
            << WidgetPlacement{0.2, 0.8, 0, 0} << QRectF(200, 0, 200, 100);
        QTest::newRow("right of the frame clamps to its edge")
            << WidgetPlacement{1, 0.5, 0, 0.5} << QRectF(800, 200, 200, 100);
        QTest::newRow("left of the frame clamps to its edge")
            << WidgetPlacement{0, 0.5, 1, 0.5} << QRectF(0, 200, 200, 100);
        QTest::newRow("above the frame clamps to the top")
            << WidgetPlacement{0.5, 1, 0.5, 0} << QRectF(400, 0, 200, 100);
        QTest::newRow("below the frame clamps to the bottom")
            << WidgetPlacement{0.5, 0, 0.5, 1} << QRectF(400, 400, 200, 100);
        QTest::newRow("far outside clamps to the corner")
            << WidgetPlacement{3, -2, 0.5, 0.5} << QRectF(800, 400, 200, 100);
    }
    void placement()
    {
        QFETCH(WidgetPlacement, placement);
        QFETCH(QRectF, frame);
        QCOMPARE(OverlayRenderer::place(placement, QSizeF(200, 100), QSizeF(1000, 500)), frame);
    }

    // A panel larger than the frame keeps its bottom-left corner on the frame's, wherever
    // it was placed.
    void panelLargerThanFrame()
    {
        QCOMPARE(OverlayRenderer::place({1, 1, 1, 1}, QSizeF(400, 300), QSizeF(320, 180)),
                 QRectF(0, -120, 400, 300));

        OverlayContent content = busyShowOverlayContent(kNow);
        content.scale = 4;
        OverlayRenderer renderer;
        const auto arranged = renderer.arrange(content, QSizeF(1920, 1080), kNow);
        const QRectF cues = find(arranged, OverlayWidget::cues)->frame;
        QVERIFY2(cues.height() > 1080, "the cue panel is taller than the frame at scale 4");
        QCOMPARE(cues.bottom(), 1080.0);
        // Its width stays within the frame (content is at most 40 % of it), so it still
        // hugs the right edge.
        QVERIFY(cues.width() <= 1920);
        QCOMPARE(cues.right(), 1920.0 - 32 * 1920.0 / 1920);
    }

    // Widgets with nothing to show are left out; an empty content shows the status panel
    // (camera label and clock) only.
    void emptyPanelsAreLeftOut()
    {
        OverlayContent content;
        OverlayRenderer renderer;
        auto arranged = renderer.arrange(content, QSizeF(1920, 1080), kNow);
        QCOMPARE(arranged.size(), size_t(1));
        QCOMPARE(arranged[0].widget, OverlayWidget::status);

        content.cameraLabel.clear();
        content.showsClock = false;
        QVERIFY(renderer.arrange(content, QSizeF(1920, 1080), kNow).empty());
    }

    // A watermark image without pixels is skipped, and the text is still drawn.
    void emptyWatermarkImageIsSkipped_data()
    {
        QTest::addColumn<QImage>("image");
        QTest::newRow("null") << QImage();
        QTest::newRow("no width") << QImage(0, 40, QImage::Format_ARGB32);
        QTest::newRow("no height") << QImage(40, 0, QImage::Format_ARGB32);
    }
    void emptyWatermarkImageIsSkipped()
    {
        QFETCH(QImage, image);
        OverlayContent content = sampleOverlayContent(kNow);
        content.watermarkImage = image;
        OverlayRenderer renderer;
        const auto arranged = renderer.arrange(content, QSizeF(1920, 1080), kNow);
        const auto* item = find(arranged, OverlayWidget::watermark);
        QVERIFY(item);
        const auto& watermark = std::get<OverlayRenderer::Watermark>(item->drawing);
        QVERIFY(watermark.image.isNull());
        QCOMPARE(watermark.text.text(), QStringLiteral("Watermark"));
        QCOMPARE(item->frame.height(), watermark.text.height());

        const YuvImage frame(QSize(640, 360)); // black
        const QRect area =
            find(renderer.arrange(content, QSizeF(640, 360), kNow), OverlayWidget::watermark)
                ->frame.toAlignedRect();
        renderer.draw(content, frame.planes(), kNow);
        bool lit = false;
        for (int y = area.top(); y <= area.bottom() && !lit; ++y)
            for (int x = area.left(); x <= area.right() && !lit; ++x)
                lit = frame.planes().y[y * frame.planes().yStride + x] > 60;
        QVERIFY2(lit, "the watermark text is drawn");
    }

    // The overlay is blended into the frame's own planes, rows padded as a camera's pool
    // makes them, and not at all when disabled.
    void drawsInPlace()
    {
        const int width = 1280, height = 720, stride = width + 64;
        std::vector<uchar> memory(static_cast<size_t>(stride) * height * 3 / 2, 0x20);
        const std::vector<uchar> before = memory;
        const YuvPlanes frame{memory.data(), memory.data() + stride * height,
                              memory.data() + stride * height * 5 / 4, stride, stride / 2,
                              width, height};
        OverlayContent content = busyShowOverlayContent(kNow);
        content.isEnabled = false;
        OverlayRenderer renderer;
        renderer.draw(content, frame, kNow);
        QVERIFY2(memory == before, "a disabled overlay draws nothing, not even the watermark");

        content.isEnabled = true;
        renderer.draw(content, frame, kNow);
        QVERIFY(memory != before);
        for (int y = 0; y < height * 3 / 2; ++y) // padding, luma rows then chroma rows
            for (int x = y < height ? width : width / 2; x < (y < height ? stride : stride / 2); ++x)
                QCOMPARE(memory[static_cast<size_t>(y < height ? y * stride + x
                                                               : stride * height +
                                                                     (y - height) * stride / 2 + x)],
                         uchar(0x20));
        // The status panel darkens the bottom-right corner; the middle stays as it was.
        QVERIFY(frame.y[(height - 30) * stride + width - 30] < 0x20);
        QCOMPARE(frame.y[height / 2 * stride + width / 2], uchar(0x20));
    }

    // Reference pictures of the sample and of a busy show, compared with a small tolerance
    // (font rasterisation may differ by a level here and there). ORVANE_REBASELINE=1
    // rewrites them.
    void referencePictures_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("busy");
        QTest::addColumn<QSize>("size");
        for (QSize size : {QSize(1920, 1080), QSize(1280, 1024)}) {
            QTest::newRow(qPrintable("sample " + sizeName(size)))
                << QStringLiteral("sample_%1.png").arg(sizeName(size)) << false << size;
            QTest::newRow(qPrintable("busy " + sizeName(size)))
                << QStringLiteral("busy_%1.png").arg(sizeName(size)) << true << size;
        }
    }
    void referencePictures()
    {
        QFETCH(QString, name);
        QFETCH(bool, busy);
        QFETCH(QSize, size);
        const OverlayContent content =
            busy ? busyShowOverlayContent(kNow) : sampleOverlayContent(kNow);
        const QImage picture = OverlayPicture::render(content, size, kNow);
        const QString path = QStringLiteral(ORVANE_TEST_DATA "/expected/") + name;
        if (testing::isRebaselining()) {
            QVERIFY(picture.save(path, "PNG"));
            return;
        }
        QImage expected(path);
        QVERIFY2(!expected.isNull(),
                 qPrintable("missing " + path + "; run with ORVANE_REBASELINE=1"));
        expected = expected.convertToFormat(QImage::Format_RGB32);
        QCOMPARE(expected.size(), picture.size());
        const qsizetype differing = differingPixels(picture, expected, 24);
        const qsizetype allowed = qsizetype(size.width()) * size.height() / 2000; // 0.05 %
        if (differing > allowed) {
            const QString actual = QStringLiteral(ORVANE_BINARY_DIR "/overlay-actual-") + name;
            picture.save(actual, "PNG");
            QFAIL(qPrintable(QStringLiteral("%1 pixels differ from %2 (at most %3); got %4")
                                 .arg(differing)
                                 .arg(path)
                                 .arg(allowed)
                                 .arg(actual)));
        }
    }

    // On a camera's frame each item is a layer kept between frames: the same content at the
    // same instant draws none again, a second later only the status panel (its clock), and a
    // changed cue its panel, which then looks exactly as a fresh renderer draws it.
    void layersAreDrawnAgainOnlyWhenTheyChange()
    {
        OverlayContent content = sampleOverlayContent(kNow);
        content.qlabCues.clear(); // its running time would change every second too
        const QImage backdrop = OverlayPicture::backdrop(QSize(960, 540));
        const auto drawn = [&](OverlayRenderer& renderer, WallTime at) {
            const YuvImage frame = YuvImage::fromRgb(backdrop);
            renderer.draw(content, frame.planes(), at);
            return frame.toRgb();
        };
        OverlayRenderer renderer;
        const QImage first = drawn(renderer, kNow);
        const int items = renderer.layersDrawn();
        QCOMPARE(items, 4); // status, cues, fields, watermark
        drawn(renderer, kNow);
        QCOMPARE(renderer.layersDrawn(), items);
        const WallTime later = addSeconds(kNow, 1);
        drawn(renderer, later);
        QCOMPARE(renderer.layersDrawn(), items + 1);
        content.cue->number = QStringLiteral("9/999");
        const QImage changed = drawn(renderer, later);
        QCOMPARE(renderer.layersDrawn(), items + 2);
        OverlayRenderer fresh;
        QVERIFY(differingPixels(first, changed, 0) > 0);
        QCOMPARE(differingPixels(changed, drawn(fresh, later), 0), qsizetype(0));
    }
};

int main(int argc, char** argv)
{
    // The clock and date of the reference pictures must not depend on where the test runs.
    qputenv("TZ", "UTC");
    ::tzset();
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedKingdom));
    QGuiApplication application(argc, argv);
    OverlayRendererTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "OverlayRendererTest.moc"
