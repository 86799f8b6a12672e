// The overlay: what a content shows (a part row's derived values at chosen instants, the
// hand-made contents of the picture tool and the tool itself) and how it is drawn (placement,
// fonts, layers, blending into the frame's planes, and reference pictures).

#include "overlay/OverlayRenderer.h"
#include "support/Golden.h"

#include "overlay/FrameBlend.h"
#include "overlay/OverlayContentJson.h"
#include "overlay/OverlayFont.h"
#include "overlay/OverlayPart.h"
#include "overlay/OverlayPicture.h"
#include "overlay/YuvLayer.h"
#include "overlay/YuvPlanes.h"

#include <QFontMetricsF>
#include <QGuiApplication>
#include <QJsonDocument>
#include <QPainter>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <vector>

Q_DECLARE_METATYPE(orvane::OverlayPart)
Q_DECLARE_METATYPE(orvane::OverlayWidget)
Q_DECLARE_METATYPE(orvane::WidgetPlacement)

using namespace orvane;

namespace {

// 2026-11-23 20:15:07.250 UTC: the instant every picture is drawn at.
const WallTime kNow = WallTime(std::chrono::milliseconds(1'795'464'907'250));

std::optional<OverlayContent> decode(const char* json, const QDir& folder = QDir())
{
    return overlayContentFromJson(QJsonDocument::fromJson(json).object(), kNow, folder);
}

// Part rows at instants counted from kNow.
WallTime at(double seconds)
{
    return addSeconds(kNow, seconds);
}

OverlayPart stored(double progress)
{
    return {{}, {}, {}, progress};
}

OverlayPart qlab(double elapsed, std::optional<double> duration, bool paused = false,
                 double sampledAt = 0)
{
    return {{}, {}, {}, 0, {}, RunningTime{elapsed, at(sampledAt), duration, paused}};
}

// A 10 s fade that started at kNow and was last reported at `reported` 3 s in.
OverlayPart fading(double reported, double storedProgress = 0)
{
    return {{}, {}, {}, storedProgress, FadeClock{10, kNow, reported, at(3), true}};
}

const OverlayRenderer::Arranged* find(const std::vector<OverlayRenderer::Arranged>& arranged,
                                      OverlayWidget widget)
{
    for (const auto& item : arranged)
        if (item.widget == widget)
            return &item;
    return nullptr;
}

// Pixels where some channel, alpha too, differs by more than `tolerance`.
qsizetype differingPixels(const QImage& a, const QImage& b, int tolerance)
{
    qsizetype count = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y);
            const QRgb q = b.pixel(x, y);
            count += std::max({std::abs(qRed(p) - qRed(q)), std::abs(qGreen(p) - qGreen(q)),
                               std::abs(qBlue(p) - qBlue(q)), std::abs(qAlpha(p) - qAlpha(q))}) >
                     tolerance;
        }
    return count;
}

// A picture that shows any blending mistake.
QImage noise(QSize size, QImage::Format format)
{
    QImage image(size, format);
    for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width(); ++x)
            image.setPixel(x, y,
                           qRgb((x * 37 + y * 11) & 255, (x * 5 + y * 91) & 255, (x ^ y) & 255));
    return image;
}

// One rounded rectangle filled, cut to the columns clipLeft...clipRight - 1, on a frame of
// `format`.
struct Fill {
    QRect rect;
    double radius;
    QColor color;
    int clipLeft = INT_MIN, clipRight = INT_MAX;
    QImage::Format format = QImage::Format_RGB32;
};

} // namespace

class OverlayTest : public QObject {
    Q_OBJECT

private slots:
    void derivedValues_data()
    {
        QTest::addColumn<OverlayPart>("part");
        QTest::addColumn<double>("instant");
        QTest::addColumn<double>("progress");
        QTest::addColumn<bool>("paused");
        QTest::addColumn<QString>("status");

        QTest::newRow("stored 99.9 % truncates") << stored(0.999) << 0.0 << 0.999 << false << "99%";
        QTest::newRow("stored above 1 is done") << stored(1.7) << 0.0 << 1.0 << false << "Done";
        QTest::newRow("stored below 0 is 0") << stored(-0.2) << 0.0 << 0.0 << false << "0%";
        QTest::newRow("stored not a number is 0")
            << stored(std::nan("")) << 0.0 << 0.0 << false << "0%";

        QTest::newRow("qlab counts down")
            << qlab(12, 45) << 3.0 << 15.0 / 45 << false << "-30.000s";
        QTest::newRow("qlab millisecond figure")
            << qlab(0, 10) << 1.2344 << 0.12344 << false << "-8.766s";
        QTest::newRow("qlab at its end is done") << qlab(12, 45) << 33.0 << 1.0 << false << "Done";
        QTest::newRow("qlab past its end is done")
            << qlab(12, 45) << 50.0 << 1.0 << false << "Done";
        QTest::newRow("qlab unknown length counts up")
            << qlab(73.4, std::nullopt) << 1.3 << 0.0 << false << "+74.7s";
        QTest::newRow("qlab zero length counts up")
            << qlab(2, 0.0) << 0.5 << 0.0 << false << "+2.5s";
        QTest::newRow("qlab paused stands still")
            << qlab(21, 60, true) << 10.0 << 0.35 << true << "-39.000s";
        QTest::newRow("qlab sampled in the future")
            << qlab(12, 45, false, 5) << 0.0 << 12.0 / 45 << false << "-33.000s";

        QTest::newRow("fade under way") << fading(0.3) << 3.1 << 0.31 << false << "-6.900s";
        QTest::newRow("fade runs a lead ahead at most")
            << fading(0.3) << 3.5 << 0.33 << false << "-6.700s";
        QTest::newRow("fade held on the console freezes")
            << fading(0.3) << 6.0 << 0.33 << true << "-6.700s";
        QTest::newRow("fade reported 99 % is done")
            << fading(0.99) << 3.0 << 1.0 << false << "Done";
        QTest::newRow("fade wins over the stored progress")
            << fading(0.3, 0.9) << 3.1 << 0.31 << false << "-6.900s";
        OverlayPart both = fading(0.3);
        both.running = RunningTime{5, kNow, 20.0, false};
        QTest::newRow("running time wins over a fade")
            << both << 0.0 << 0.25 << false << "-15.000s";
    }

    void derivedValues()
    {
        QFETCH(OverlayPart, part);
        QFETCH(double, instant);
        QFETCH(double, progress);
        QFETCH(bool, paused);
        QFETCH(QString, status);

        const WallTime now = at(instant);
        QVERIFY2(std::abs(part.progressAt(now) - progress) < 1e-9,
                 qPrintable(QString::number(part.progressAt(now), 'g', 12)));
        QCOMPARE(part.isPausedAt(now), paused);
        QCOMPARE(part.statusAt(now), status);
        QCOMPARE(part.isCompleteAt(now), progress >= 1);
    }

    // Nothing set is the default content. Everything set: the watermark image is read beside
    // the content file.
    void decodesContent()
    {
        QCOMPARE(decode("{}"), std::optional(OverlayContent()));
        QTemporaryDir folder;
        QImage logo(64, 32, QImage::Format_ARGB32);
        logo.fill(Qt::white);
        QVERIFY(logo.save(folder.filePath("logo.png")));
        const auto content = decode(R"({
            "showName": "Hamlet", "scale": 1.5, "opacity": 0.5, "cameraLabel": "Wide",
            "showsClock": false, "showsDate": true, "showsTimecode": true,
            "layout": {"placements": ["status", {"x": 0.1, "y": 0.2, "anchorX": 0, "anchorY": 0}]},
            "showTime": {"start": 3600, "elapsed": 12.5, "framesPerSecond": 30},
            "recordingSeconds": 90,
            "cue": {"number": "1/30", "label": "Ballad"}, "nextCue": {"number": "1/40"},
            "parts": [{"id": "P1", "tag": "P1", "label": "Intensity", "isRunning": true,
                       "fade": {"fade": 8, "reported": 0.4, "startedSecondsAgo": 3.2,
                                "advancedSecondsAgo": 0.1}}],
            "qlabCues": [{"id": "A", "tag": "12", "label": "Rain",
                          "running": {"elapsed": 4, "duration": 30, "isPaused": true}},
                         {"id": "B", "running": {"elapsed": 2}}],
            "fields": [{"caption": "Sound", "value": "Q 30", "detail": "GO"}],
            "watermarkText": "Rehearsal", "watermarkOpacity": 0.3, "watermarkImage": "logo.png"})",
                                    QDir(folder.path()));
        QVERIFY(content);
        QCOMPARE(*content->showName, "Hamlet");
        QCOMPARE(content->scale, 1.5);
        QCOMPARE(content->layout.placement(OverlayWidget::status),
                 (WidgetPlacement{0.1, 0.2, 0, 0}));
        QCOMPARE(content->layout.placement(OverlayWidget::cues),
                 WidgetPlacement::defaultFor(OverlayWidget::cues));
        QCOMPARE(content->showTime->secondsAt(kNow), 3612.5);
        QCOMPARE(content->showTime->framesPerSecond, 30.0);
        QCOMPARE(secondsBetween(*content->recordingStart, kNow), 90.0);
        QCOMPARE(content->nextCue->label, QString());
        QCOMPARE(content->parts.size(), size_t(1));
        QVERIFY(content->parts[0].isRunning && content->parts[0].statusAt(kNow) == "-4.800s");
        QCOMPARE(content->qlabCues[0].statusAt(kNow), "-26.000s");
        QVERIFY(content->qlabCues[0].isPausedAt(kNow));
        QCOMPARE(content->qlabCues[1].statusAt(kNow), "+2.0s");
        QCOMPARE(content->fields[0], (OverlayItem{"Sound", "Q 30", "GO"}));
        QCOMPARE(content->watermarkOpacity, 0.3);
        QCOMPARE(content->watermarkImage->size(), QSize(64, 32));
    }

    void rejected_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("scale as text") << QByteArray(R"({"scale": "big"})");
        QTest::newRow("show name as number") << QByteArray(R"({"showName": 3})");
        QTest::newRow("cue as text") << QByteArray(R"({"cue": "1/30"})");
        QTest::newRow("parts not a list") << QByteArray(R"({"parts": {"id": "P1"}})");
        QTest::newRow("part not an object") << QByteArray(R"({"parts": ["P1"]})");
        QTest::newRow("fade of no length") << QByteArray(R"({"parts": [{"fade": {"fade": 0}}]})");
        QTest::newRow("running elapsed as text")
            << QByteArray(R"({"qlabCues": [{"running": {"elapsed": "4"}}]})");
        QTest::newRow("field value as number") << QByteArray(R"({"fields": [{"value": 30}]})");
        QTest::newRow("unknown widget") << QByteArray(
            R"({"layout": {"placements": ["clock", {"x": 0, "y": 0, "anchorX": 0, "anchorY": 0}]}})");
        QTest::newRow("missing watermark image")
            << QByteArray(R"({"watermarkImage": "no-such-logo.png"})");
        QTest::newRow("recording as text") << QByteArray(R"({"recordingSeconds": "90"})");
    }
    void rejected()
    {
        QFETCH(QByteArray, json);
        QVERIFY(!decode(json.constData()));
    }

    // The picture tool end to end: it writes a PNG of the asked size, and refuses bad input.
    void pictureTool_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QSize>("size");
        QTest::newRow("help") << QStringList{"--help"} << 0 << QSize();
        QTest::newRow("sample at 1080p") << QStringList{"--sample"} << 0 << QSize(1920, 1080);
        QTest::newRow("busy at 1280x1024")
            << QStringList{"--busy", "--size", "1280x1024"} << 0 << QSize(1280, 1024);
        QTest::newRow("content file")
            << QStringList{"--content", "CONTENT", "--size", "640x360"} << 0 << QSize(640, 360);
        QTest::newRow("bad size") << QStringList{"--size", "wide"} << 1 << QSize();
        QTest::newRow("two sources") << QStringList{"--sample", "--busy"} << 1 << QSize();
        QTest::newRow("bad time") << QStringList{"--time", "teatime"} << 1 << QSize();
        QTest::newRow("missing content file")
            << QStringList{"--content", "/nonexistent.json"} << 1 << QSize();
    }
    void pictureTool()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QSize, size);
        QTemporaryDir folder;
        QFile contentFile(folder.filePath(QStringLiteral("content.json")));
        QVERIFY(contentFile.open(QIODevice::WriteOnly));
        contentFile.write(R"({"showName": "Hamlet", "cue": {"number": "5", "label": "Ghost"}})");
        contentFile.close();
        arguments.replaceInStrings(QStringLiteral("CONTENT"), contentFile.fileName());
        const QString out = folder.filePath(QStringLiteral("out.png"));

        QProcess tool;
        tool.start(qEnvironmentVariable("ORVANE_EXECUTABLE"),
                   QStringList{QStringLiteral("overlay-picture")} + arguments + QStringList{out});
        QVERIFY(tool.waitForFinished(60000));
        QCOMPARE(tool.exitCode(), exitCode);
        const QImage picture(out);
        QCOMPARE(picture.isNull() ? QSize() : picture.size(), size);
        if (exitCode != 0)
            QVERIFY(!tool.readAllStandardError().isEmpty());
    }

    // Changing figures must not make a line jitter: every font of the overlay gives the ten
    // digits one advance, at every size.
    void digitsHaveEqualAdvances()
    {
        QVERIFY2(OverlayFont::isLoaded(), "the overlay's font files are installed");
        for (double unit : {1.0, 2.0, 1280.0 / 1920}) {
            const auto style = OverlayRenderer::Style::forUnit(unit);
            for (const QFont& font :
                 {style.caption, style.captionMonospaced, style.value, style.heading,
                  style.monospaced, style.detail, style.part, style.partNumber}) {
                const QFontMetricsF metrics(font, &OverlayFont::measuringDevice());
                const double zero = metrics.horizontalAdvance(QLatin1Char('0'));
                QVERIFY(zero > 0);
                for (char digit = '1'; digit <= '9'; ++digit)
                    QCOMPARE(metrics.horizontalAdvance(QLatin1Char(digit)), zero);
                QCOMPARE(metrics.horizontalAdvance("11:11:11"),
                         metrics.horizontalAdvance("20:48:09"));
            }
        }
    }

    // A placement puts the anchor point of the panel on its point of the frame, counted from
    // the bottom left, and keeps the panel inside the frame.
    void placement_data()
    {
        QTest::addColumn<WidgetPlacement>("placement");
        QTest::addColumn<QRectF>("frame"); // for a 200 x 100 panel in 1000 x 500, Qt's origin
        const auto row = [](const char* name, WidgetPlacement placement, int left, int top) {
            QTest::newRow(name) << placement << QRectF(left, top, 200, 100);
        };
        row("centre", {0.5, 0.5, 0.5, 0.5}, 400, 200);
        row("bottom-left corner", {0, 0, 0, 0}, 0, 400);
        row("top-right corner", {1, 1, 1, 1}, 800, 0);
        row("y counts upward", {0.2, 0.8, 0, 0}, 200, 0);
        row("left of the frame clamps to its edge", {0, 0.5, 1, 0.5}, 0, 200);
        row("above the frame clamps to the top", {0.5, 1, 0.5, 0}, 400, 0);
        row("far outside clamps to the corner", {3, -2, 0.5, 0.5}, 800, 400);
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

    // What has nothing to show is left out: an empty content shows the status panel (camera
    // label and clock) only, and a watermark image without pixels (Qt makes one of no width or
    // height null too) is skipped while its text is still drawn.
    void leavesOutWhatIsEmpty()
    {
        OverlayContent empty;
        OverlayRenderer renderer;
        const auto alone = renderer.arrange(empty, QSizeF(1920, 1080), kNow);
        QVERIFY(alone.size() == 1 && alone[0].widget == OverlayWidget::status);
        empty.cameraLabel.clear();
        empty.showsClock = false;
        QVERIFY(renderer.arrange(empty, QSizeF(1920, 1080), kNow).empty());

        OverlayContent content = sampleOverlayContent(kNow);
        content.watermarkImage = QImage(0, 40, QImage::Format_ARGB32);
        const auto arranged = renderer.arrange(content, QSizeF(1920, 1080), kNow);
        const auto* item = find(arranged, OverlayWidget::watermark);
        QVERIFY(item);
        const auto& watermark = std::get<OverlayRenderer::Watermark>(item->drawing);
        QVERIFY(watermark.image.isNull());
        QCOMPARE(watermark.text.text(), "Watermark");
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
        const YuvPlanes frame{memory.data(),
                              memory.data() + stride * height,
                              memory.data() + stride * height * 5 / 4,
                              stride,
                              stride / 2,
                              width,
                              height};
        OverlayContent content = busyShowOverlayContent(kNow);
        content.isEnabled = false;
        OverlayRenderer renderer;
        renderer.draw(content, frame, kNow);
        QVERIFY2(memory == before, "a disabled overlay draws nothing, not even the watermark");

        content.isEnabled = true;
        renderer.draw(content, frame, kNow);
        QVERIFY(memory != before);
        for (int y = 0; y < height * 3 / 2; ++y) // padding, luma rows then chroma rows
            for (int x = y < height ? width : width / 2; x < (y < height ? stride : stride / 2);
                 ++x)
                QCOMPARE(memory[static_cast<size_t>(
                             y < height ? y * stride + x
                                        : stride * height + (y - height) * stride / 2 + x)],
                         uchar(0x20));
    }

    // Reference pictures of the sample and of a busy show, compared with a small tolerance
    // (font rasterisation may differ by a level here and there). ORVANE_REBASELINE=1
    // rewrites them.
    void referencePictures_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("busy");
        QTest::addColumn<QSize>("size");
        // The busy show at the overlay's design size; the sample at another shape and unit.
        QTest::newRow("busy") << "busy_1920x1080.png" << true << QSize(1920, 1080);
        QTest::newRow("sample") << "sample_1280x1024.png" << false << QSize(1280, 1024);
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
                 qPrintable("missing " + path + "; ORVANE_REBASELINE=1 makes it"));
        expected = expected.convertToFormat(QImage::Format_RGB32);
        QCOMPARE(expected.size(), picture.size());
        const qsizetype differing = differingPixels(picture, expected, 24);
        const qsizetype allowed = qsizetype(size.width()) * size.height() / 2000; // 0.05 %
        if (differing > allowed) {
            const QString actual = ORVANE_BINARY_DIR "/overlay-actual-" + name;
            picture.save(actual, "PNG");
            QFAIL(qPrintable(QString::asprintf("%lld pixels differ from %s (at most %lld); got %s",
                                               qint64(differing), qPrintable(path), qint64(allowed),
                                               qPrintable(actual))));
        }
    }

    // A paused QLab row shows its pause sign, a detail too small for the pictures' tolerance.
    void aPausedRowShowsItsSign()
    {
        OverlayContent content = busyShowOverlayContent(kNow);
        const QImage paused = OverlayPicture::render(content, QSize(960, 540), kNow);
        content.qlabCues.back().running->isPaused = false; // its figures stay as they are
        const QImage running = OverlayPicture::render(content, QSize(960, 540), kNow);
        QVERIFY(differingPixels(paused, running, 24) >= 20);
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

    // The overlay's own blending must look like QPainter's: same colours, same rounded
    // corners, same cut, on 32-bit frames and on the premultiplied layers the overlay draws in
    // (the blend treats every 32-bit format alike).
    void fillMatchesPainter_data()
    {
        QTest::addColumn<Fill>("fill");
        const QColor panel = QColor::fromRgbF(0.04f, 0.04f, 0.04f, 0.7f);
        const QColor track(217, 217, 217, 77), faint(255, 255, 255, 15);
        const auto row = [](const char* name, const Fill& fill) { QTest::newRow(name) << fill; };
        row("panel", {QRect(10, 8, 101, 57), 12.0, panel});
        row("odd width for the tail", {QRect(3, 3, 7, 30), 2.0, panel});
        row("fractional radius", {QRect(4, 4, 80, 36), 5.33, faint});
        row("square corners", {QRect(4, 4, 80, 36), 0.0, QColor(200, 30, 40, 128)});
        row("radius above half the height", {QRect(4, 4, 80, 20), 30.0, panel});
        row("cut on the right", {QRect(4, 4, 100, 36), 8.0, track, INT_MIN, 47});
        row("cut inside the corner", {QRect(4, 4, 100, 36), 8.0, track, INT_MIN, 8});
        row("cut on the left", {QRect(4, 4, 100, 36), 8.0, faint, 47});
        row("partly outside the frame", {QRect(-20, 90, 80, 60), 12.0, panel});
        row("opaque", {QRect(10, 10, 50, 50), 10.0, QColor(255, 59, 48)});
        row("ARGB32 premultiplied", {QRect(10, 8, 101, 57), 12.0, panel, INT_MIN, INT_MAX,
                                     QImage::Format_ARGB32_Premultiplied});
    }
    void fillMatchesPainter()
    {
        QFETCH(Fill, fill);
        const auto [rect, radius, color, clipLeft, clipRight, format] = fill;
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
        QCOMPARE(differingPixels(ours, theirs, 24), qsizetype(0));
        QVERIFY(differingPixels(ours, noise(QSize(128, 128), format), 0) > 0);
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
        QCOMPARE(differingPixels(ours, theirs, 2), qsizetype(0));
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
        QCOMPARE(differingPixels(once, twice, 2), qsizetype(0));
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

int main(int argc, char** argv)
{
    // The clock and date of the reference pictures must not depend on where the test runs.
    qputenv("TZ", "UTC");
    ::tzset();
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedKingdom));
    QGuiApplication application(argc, argv);
    OverlayTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "OverlayTest.moc"
