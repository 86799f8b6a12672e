#include "overlay/OverlayRenderer.h"

#include "overlay/FrameBlend.h"
#include "overlay/OverlayFont.h"
#include "overlay/YuvLayer.h"

#include <QDateTime>
#include <QFontMetricsF>
#include <QHash>
#include <QLocale>
#include <QPainter>
#include <QRegularExpression>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace orvane {

namespace {

template <class... Ts> struct Overloaded : Ts... {
    using Ts::operator()...;
};
template <class... Ts> Overloaded(Ts...) -> Overloaded<Ts...>;

// The design frame: every size below is in units of 1/1920 of its width at scale 1.
constexpr double kDesignWidth = 1920;
constexpr double kDesignHeight = 1080;

// Composition (sizes in units).
constexpr double kPanelPaddingX = 18;
constexpr double kPanelPaddingY = 14;
constexpr double kPanelCornerRadius = 12;
constexpr double kLineSpacing = 4;
constexpr double kGroupGap = 10;
constexpr double kSectionGap = 12;
constexpr double kPairGap = 10;
constexpr double kPartsContentWidth = 400;
constexpr double kMaximumContentShare = 0.4; // of the frame's width

constexpr double kRowHeight = 36;
constexpr double kRowSpacing = 5;
constexpr double kRowCornerRadius = 8;
constexpr double kRowInset = 12;      // tag and status from the row's ends
constexpr double kTagColumn = 110;    // space the label leaves for the status figure
constexpr double kTaggedColumn = 152; // the same when a tag stands before the label
constexpr double kTagToLabel = 8;     // least space between a long tag and the label
constexpr double kPauseBarWidth = 4;
constexpr double kPauseBarHeight = 14;
constexpr double kPauseBarGap = 3.5;
constexpr double kPauseToStatus = 7;

constexpr double kRecordDot = 11;
constexpr double kRecordTextOffset = 18;

constexpr double kCaptionSpacing = 1.6;
constexpr double kSmallLabelSpacing = 1.2;

constexpr double kWatermarkImageGap = 8;
constexpr double kWatermarkImageWidth = 320;
constexpr double kWatermarkImageHeight = 90;
constexpr double kWatermarkShadowBlur = 6;
constexpr double kWatermarkShadowAlpha = 0.6;

// Alphas of white text.
constexpr double kValueAlpha = 1.0;
constexpr double kDetailAlpha = 0.8;
constexpr double kSecondaryAlpha = 0.7;
constexpr double kSmallLabelAlpha = 0.65;
constexpr double kCaptionAlpha = 0.5;
constexpr double kStatusAlpha = 0.65;
constexpr double kStatusDoneAlpha = 0.35;

enum class FontRole : quint8 {
    caption,
    captionMonospaced,
    value,
    heading,
    monospaced,
    detail,
    part,
    partNumber,
};

const QFont& fontFor(const OverlayRenderer::Style& style, FontRole role)
{
    switch (role) {
    case FontRole::caption:
        return style.caption;
    case FontRole::captionMonospaced:
        return style.captionMonospaced;
    case FontRole::value:
        return style.value;
    case FontRole::heading:
        return style.heading;
    case FontRole::monospaced:
        return style.monospaced;
    case FontRole::detail:
        return style.detail;
    case FontRole::part:
        return style.part;
    case FontRole::partNumber:
        return style.partNumber;
    }
    return style.detail;
}

QColor white(double alpha)
{
    return QColor::fromRgbF(1, 1, 1, static_cast<float>(std::clamp(alpha, 0.0, 1.0)));
}

QColor grey(double level, double alpha)
{
    const auto l = static_cast<float>(level);
    return QColor::fromRgbF(l, l, l, static_cast<float>(std::clamp(alpha, 0.0, 1.0)));
}

quint64 bitsOf(double value)
{
    quint64 bits = 0;
    static_assert(sizeof bits == sizeof value);
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

struct TextKey {
    quint64 unit;
    FontRole role;
    int alpha;      // 0...1000
    int spacing;    // tenths of a unit
    int widthLimit; // whole pixels, 0 for none
    QString text;
    friend bool operator==(const TextKey&, const TextKey&) = default;
};

size_t qHash(const TextKey& key, size_t seed = 0)
{
    return qHashMulti(seed, key.unit, static_cast<int>(key.role), key.alpha, key.spacing,
                      key.widthLimit, key.text);
}

struct WatermarkKey {
    quint64 unit;
    QString text;
    qint64 image; // QImage::cacheKey, 0 for none
    QSize imageSize;
    int opacity; // 0...1000
    friend bool operator==(const WatermarkKey&, const WatermarkKey&) = default;
};

// "HH:MM:SS" of a count of seconds, hours not wrapped.
QString hoursMinutesSeconds(qint64 seconds)
{
    return QString::asprintf("%02lld:%02lld:%02lld", seconds / 3600, (seconds / 60) % 60,
                             seconds % 60);
}

// The locale's long date without the weekday and with the month abbreviated ("Nov 23, 2026",
// "23. Nov. 2026").
QString abbreviatedDateFormat(const QLocale& locale)
{
    QString format = locale.dateFormat(QLocale::LongFormat);
    static const QRegularExpression weekday(QStringLiteral("d{4}[,.]?\\s*"));
    format.remove(weekday);
    format.replace(QStringLiteral("MMMM"), QStringLiteral("MMM"));
    return format.trimmed();
}

// Blurs the alpha of a premultiplied image into a shadow of `color`: three box passes
// approximate a Gaussian of the given sigma.
QImage shadowOf(const QImage& source, double sigma, QColor color)
{
    const int width = source.width();
    const int height = source.height();
    std::vector<float> alpha(static_cast<size_t>(width) * height);
    for (int y = 0; y < height; ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(source.constScanLine(y));
        for (int x = 0; x < width; ++x)
            alpha[static_cast<size_t>(y) * width + x] = static_cast<float>(qAlpha(line[x]));
    }
    const int radius = std::max(1, static_cast<int>(std::lround(sigma)));
    std::vector<float> scratch(std::max(width, height));
    auto boxPass = [&](float* data, int count, int stride) {
        float sum = 0;
        for (int i = -radius; i <= radius; ++i)
            sum += (i >= 0 && i < count) ? data[static_cast<ptrdiff_t>(i) * stride] : 0.0f;
        const float scale = 1.0f / static_cast<float>(2 * radius + 1);
        for (int i = 0; i < count; ++i) {
            scratch[i] = sum * scale;
            const int out = i - radius;
            const int in = i + radius + 1;
            if (out >= 0)
                sum -= data[static_cast<ptrdiff_t>(out) * stride];
            if (in < count)
                sum += data[static_cast<ptrdiff_t>(in) * stride];
        }
        for (int i = 0; i < count; ++i)
            data[static_cast<ptrdiff_t>(i) * stride] = scratch[i];
    };
    for (int pass = 0; pass < 3; ++pass) {
        for (int y = 0; y < height; ++y)
            boxPass(alpha.data() + static_cast<size_t>(y) * width, width, 1);
        for (int x = 0; x < width; ++x)
            boxPass(alpha.data() + x, height, width);
    }
    QImage shadow(width, height, QImage::Format_ARGB32_Premultiplied);
    const double strength = color.alphaF() / 255.0;
    for (int y = 0; y < height; ++y) {
        auto* line = reinterpret_cast<QRgb*>(shadow.scanLine(y));
        for (int x = 0; x < width; ++x) {
            const int a =
                std::clamp(static_cast<int>(std::lround(alpha[static_cast<size_t>(y) * width + x] *
                                                        strength * 255.0)),
                           0, 255);
            line[x] = qPremultiply(qRgba(color.red(), color.green(), color.blue(), a));
        }
    }
    return shadow;
}

} // namespace

// Text shaped for earlier frames and the composed watermark. Text not used for a while is
// dropped, so the figures that change every frame do not pile up.
class OverlayRenderer::Cache {
public:
    TextLine line(const Style& style, FontRole role, const QString& text, double alpha,
                  double spacingUnits = 0, double widthLimit = 0)
    {
        const TextKey key{bitsOf(style.unit),
                          role,
                          static_cast<int>(std::lround(alpha * 1000)),
                          static_cast<int>(std::lround(spacingUnits * 10)),
                          static_cast<int>(std::floor(std::max(0.0, widthLimit))),
                          text};
        auto found = texts_.find(key);
        if (found != texts_.end()) {
            found->lastUsed = generation_;
            return found->line;
        }
        const double spacing = spacingUnits * style.unit;
        QFont font = fontFor(style, role);
        QString shown = text;
        if (key.widthLimit > 0) {
            QFont spaced = font;
            if (spacing != 0)
                spaced.setLetterSpacing(QFont::AbsoluteSpacing, spacing);
            const QFontMetricsF metrics(spaced, &OverlayFont::measuringDevice());
            shown = metrics.elidedText(text, Qt::ElideRight, key.widthLimit);
        }
        TextLine made = TextLine::make(shown, font, white(alpha), spacing);
        texts_.insert(key, Entry{made, generation_});
        return made;
    }

    const Style& style(double unit)
    {
        if (!style_ || style_->unit != unit)
            style_ = Style::forUnit(unit);
        return *style_;
    }

    struct ComposedWatermark {
        QImage image;   // content and shadow, premultiplied
        QPointF offset; // of the item's frame inside the image
    };

    const ComposedWatermark& watermark(const Watermark& watermark, double unit)
    {
        WatermarkKey key{bitsOf(unit), watermark.text.text(),
                         watermark.image.isNull() ? 0 : watermark.image.cacheKey(),
                         watermark.imageSize.toSize(),
                         static_cast<int>(std::lround(watermark.opacity * 1000))};
        if (watermarkKey_ && *watermarkKey_ == key)
            return watermarkImage_;
        watermarkKey_ = key;
        watermarkImage_ = compose(watermark);
        return watermarkImage_;
    }

    // One item's layer for blending into YUV frames, and what it showed when drawn.
    struct Layer {
        quint64 signature = 0;
        QRect box; // in frame pixels, on even coordinates
        QImage image;
        YuvLayer converted;
    };
    Layer& layer(OverlayWidget widget) { return layers_[static_cast<size_t>(widget)]; }

    // Called after every arrangement: drops text that the last frames did not use once
    // enough has gathered.
    void endFrame()
    {
        ++generation_;
        if (texts_.size() < kSweepAbove)
            return;
        for (auto it = texts_.begin(); it != texts_.end();) {
            if (generation_ - it->lastUsed > 2)
                it = texts_.erase(it);
            else
                ++it;
        }
    }

private:
    static constexpr qsizetype kSweepAbove = 256;

    static ComposedWatermark compose(const Watermark& watermark)
    {
        const double margin = std::ceil(watermark.shadowBlur * 1.5) + 1;
        const double textHeight = watermark.text.isEmpty() ? 0 : watermark.text.height();
        const double width = std::max(watermark.text.width(), watermark.imageSize.width());
        double height = textHeight;
        if (!watermark.image.isNull())
            height += (textHeight > 0 ? watermark.imageGap : 0) + watermark.imageSize.height();
        const QSize size(static_cast<int>(std::ceil(width + 2 * margin)),
                         static_cast<int>(std::ceil(height + 2 * margin)));
        QImage content(size.expandedTo(QSize(1, 1)), QImage::Format_ARGB32_Premultiplied);
        content.fill(Qt::transparent);
        {
            QPainter painter(&content);
            painter.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing |
                                   QPainter::SmoothPixmapTransform);
            if (!watermark.text.isEmpty())
                watermark.text.draw(painter, QPointF(margin + width - watermark.text.width(),
                                                     margin + watermark.text.ascent()));
            if (!watermark.image.isNull()) {
                const double top = margin + textHeight + (textHeight > 0 ? watermark.imageGap : 0);
                const QRectF target(margin + width - watermark.imageSize.width(), top,
                                    watermark.imageSize.width(), watermark.imageSize.height());
                const QImage scaled =
                    watermark.image.scaled(target.size().toSize().expandedTo(QSize(1, 1)),
                                           Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
                painter.drawImage(target, scaled);
            }
        }
        QImage composed = shadowOf(content, watermark.shadowBlur / 2,
                                   QColor(0, 0, 0, static_cast<int>(kWatermarkShadowAlpha * 255)));
        {
            QPainter painter(&composed);
            painter.drawImage(0, 0, content);
        }
        // The opacity is part of the picture, so a frame only blends it.
        if (watermark.opacity < 1) {
            QImage faded(composed.size(), QImage::Format_ARGB32_Premultiplied);
            faded.fill(Qt::transparent);
            QPainter painter(&faded);
            painter.setOpacity(watermark.opacity);
            painter.drawImage(0, 0, composed);
            painter.end();
            composed = faded;
        }
        return ComposedWatermark{composed, QPointF(margin, margin)};
    }

    struct Entry {
        TextLine line;
        quint64 lastUsed = 0;
    };
    QHash<TextKey, Entry> texts_;
    quint64 generation_ = 1;
    std::optional<Style> style_;
    std::optional<WatermarkKey> watermarkKey_;
    ComposedWatermark watermarkImage_;
    std::array<Layer, allOverlayWidgets.size()> layers_;
};

namespace {

using Cache = OverlayRenderer::Cache;
using Style = OverlayRenderer::Style;

// Builds the panels of one frame from the content.
class PanelBuilder {
public:
    PanelBuilder(OverlayRenderer::Cache& cache, const Style& style, double maximumContentWidth)
        : cache_(cache)
        , style_(style)
        , unit_(style.unit)
        , maximum_(maximumContentWidth)
    {
    }

    Panel status(const OverlayContent& content, WallTime now)
    {
        Panel panel = empty();
        if (content.showName && !content.showName->isEmpty())
            panel.elements.push_back(text(FontRole::heading, *content.showName, kValueAlpha));
        if (!content.cameraLabel.isEmpty())
            panel.elements.push_back(text(FontRole::caption, content.cameraLabel.toUpper(),
                                          kSmallLabelAlpha, kSmallLabelSpacing));
        bool timeGroup = false;
        auto startTimeGroup = [&] {
            if (!timeGroup && !panel.elements.empty())
                panel.elements.push_back(Panel::Gap{kGroupGap * unit_});
            timeGroup = true;
        };
        if (content.showsTimecode && content.showTime) {
            startTimeGroup();
            const double seconds = std::fmod(content.showTime->secondsAt(now), 86400.0);
            panel.elements.push_back(
                pair(FontRole::caption, QStringLiteral("TC"), kSmallLabelAlpha, kSmallLabelSpacing,
                     FontRole::value, ShowTime::format(seconds, content.showTime->framesPerSecond),
                     kValueAlpha));
        }
        if (content.showsClock) {
            startTimeGroup();
            const QTime time = QDateTime::fromMSecsSinceEpoch(millisecondsOf(now)).time();
            panel.elements.push_back(
                pair(FontRole::caption, QStringLiteral("TIME"), kSmallLabelAlpha,
                     kSmallLabelSpacing, FontRole::monospaced,
                     QString::asprintf("%02d:%02d:%02d", time.hour(), time.minute(), time.second()),
                     kValueAlpha));
        }
        if (content.showsDate) {
            startTimeGroup();
            const QLocale locale;
            const QDate date = QDateTime::fromMSecsSinceEpoch(millisecondsOf(now)).date();
            panel.elements.push_back(text(FontRole::detail,
                                          locale.toString(date, abbreviatedDateFormat(locale)),
                                          kSecondaryAlpha));
        }
        if (content.recordingStart) {
            if (!panel.elements.empty())
                panel.elements.push_back(Panel::Gap{kSectionGap * unit_});
            const double running = std::max(0.0, secondsBetween(*content.recordingStart, now));
            const QString line =
                QStringLiteral("REC ") + hoursMinutesSeconds(static_cast<qint64>(running));
            panel.elements.push_back(
                Panel::Record{cache_.line(style_, FontRole::captionMonospaced, line, kValueAlpha, 0,
                                          maximum_ - kRecordTextOffset * unit_),
                              kRecordDot * unit_, kRecordTextOffset * unit_});
        }
        panel.measure(0, maximum_);
        return panel;
    }

    Panel cues(const OverlayContent& content)
    {
        Panel panel = empty();
        if (content.cue) {
            panel.elements.push_back(pair(FontRole::caption, QStringLiteral("CUE"), kCaptionAlpha,
                                          kCaptionSpacing, FontRole::value, content.cue->number,
                                          kValueAlpha));
            if (!content.cue->label.isEmpty())
                panel.elements.push_back(text(FontRole::detail, content.cue->label, kDetailAlpha));
        }
        if (!content.parts.empty()) {
            if (!panel.elements.empty())
                panel.elements.push_back(Panel::Gap{kGroupGap * unit_});
            panel.elements.push_back(parts(content.parts));
        }
        if (content.nextCue) {
            if (!panel.elements.empty())
                panel.elements.push_back(Panel::Gap{kSectionGap * unit_});
            panel.elements.push_back(pair(FontRole::caption, QStringLiteral("NEXT"), kCaptionAlpha,
                                          kCaptionSpacing, FontRole::monospaced,
                                          content.nextCue->number, kValueAlpha));
            if (!content.nextCue->label.isEmpty())
                panel.elements.push_back(
                    text(FontRole::detail, content.nextCue->label, kSecondaryAlpha));
        }
        panel.measure(content.parts.empty() ? 0 : kPartsContentWidth * unit_, maximum_);
        return panel;
    }

    Panel fields(const OverlayContent& content)
    {
        Panel panel = empty();
        for (const OverlayItem& item : content.fields) {
            if (!panel.elements.empty())
                panel.elements.push_back(Panel::Gap{kGroupGap * unit_});
            panel.elements.push_back(pair(FontRole::caption, item.caption.toUpper(), kCaptionAlpha,
                                          kCaptionSpacing, FontRole::heading, item.value,
                                          kValueAlpha));
            if (!item.detail.isEmpty())
                panel.elements.push_back(text(FontRole::detail, item.detail, kSecondaryAlpha));
        }
        panel.measure(0, maximum_);
        return panel;
    }

    Panel qlab(const OverlayContent& content)
    {
        Panel panel = empty();
        if (content.qlabCues.empty())
            return panel;
        panel.elements.push_back(
            text(FontRole::caption, QStringLiteral("QLAB"), kCaptionAlpha, kCaptionSpacing));
        panel.elements.push_back(parts(content.qlabCues));
        panel.measure(kPartsContentWidth * unit_, maximum_);
        return panel;
    }

    std::optional<OverlayRenderer::Watermark> watermark(const OverlayContent& content)
    {
        OverlayRenderer::Watermark watermark;
        if (!content.watermarkText.isEmpty())
            watermark.text = cache_.line(style_, FontRole::heading, content.watermarkText,
                                         kValueAlpha, 0, maximum_);
        if (content.watermarkImage && content.watermarkImage->width() > 0 &&
            content.watermarkImage->height() > 0) {
            const QSizeF natural = content.watermarkImage->size();
            const double fit = std::min(kWatermarkImageWidth * unit_ / natural.width(),
                                        kWatermarkImageHeight * unit_ / natural.height());
            watermark.image = *content.watermarkImage;
            watermark.imageSize = natural * fit;
        }
        if (watermark.text.isEmpty() && watermark.image.isNull())
            return std::nullopt;
        watermark.imageGap = kWatermarkImageGap * unit_;
        watermark.opacity = std::clamp(content.watermarkOpacity, 0.0, 1.0);
        watermark.shadowBlur = kWatermarkShadowBlur * unit_;
        return watermark;
    }

    static QSizeF watermarkSize(const OverlayRenderer::Watermark& watermark)
    {
        const double textHeight = watermark.text.isEmpty() ? 0 : watermark.text.height();
        double height = textHeight;
        if (!watermark.image.isNull())
            height += (textHeight > 0 ? watermark.imageGap : 0) + watermark.imageSize.height();
        return QSizeF(std::max(watermark.text.width(), watermark.imageSize.width()), height);
    }

private:
    static qint64 millisecondsOf(WallTime time)
    {
        return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch())
            .count();
    }

    Panel empty() const
    {
        Panel panel;
        panel.padding = QSizeF(kPanelPaddingX * unit_, kPanelPaddingY * unit_);
        panel.lineSpacing = kLineSpacing * unit_;
        return panel;
    }

    Panel::Element text(FontRole role, const QString& value, double alpha, double spacing = 0)
    {
        return Panel::Text{cache_.line(style_, role, value, alpha, spacing, maximum_)};
    }

    Panel::Element pair(FontRole firstRole, const QString& first, double firstAlpha,
                        double firstSpacing, FontRole secondRole, const QString& second,
                        double secondAlpha)
    {
        const double gap = kPairGap * unit_;
        TextLine caption =
            cache_.line(style_, firstRole, first, firstAlpha, firstSpacing, maximum_);
        TextLine value = cache_.line(style_, secondRole, second, secondAlpha, 0,
                                     std::max(1.0, maximum_ - caption.width() - gap));
        return Panel::Pair{caption, value, gap};
    }

    Panel::Element parts(const std::vector<OverlayPart>& parts) const
    {
        return Panel::Parts{parts, kRowHeight * unit_, kRowSpacing * unit_};
    }

    Cache& cache_;
    const Style& style_;
    double unit_;
    double maximum_;
};

} // namespace

OverlayRenderer::Style OverlayRenderer::Style::forUnit(double unit)
{
    Style style;
    style.unit = unit;
    style.caption = OverlayFont::font(14 * unit, QFont::DemiBold);
    style.captionMonospaced = OverlayFont::font(15 * unit, QFont::DemiBold);
    style.value = OverlayFont::font(44 * unit, QFont::DemiBold);
    style.heading = OverlayFont::font(26 * unit, QFont::DemiBold);
    style.monospaced = OverlayFont::font(26 * unit, QFont::DemiBold);
    style.detail = OverlayFont::font(21 * unit, QFont::Normal);
    style.part = OverlayFont::font(18 * unit, QFont::Normal);
    style.partNumber = OverlayFont::font(18 * unit, QFont::DemiBold);
    return style;
}

OverlayRenderer::OverlayRenderer()
    : cache_(std::make_unique<Cache>())
{
}

OverlayRenderer::~OverlayRenderer() = default;

double OverlayRenderer::unitFor(QSizeF size, double scale)
{
    return std::min(size.width() / kDesignWidth, size.height() / kDesignHeight) * scale;
}

QRectF OverlayRenderer::place(const WidgetPlacement& placement, QSizeF panel, QSizeF frame)
{
    const double w = panel.width();
    const double h = panel.height();
    const double width = frame.width();
    const double height = frame.height();
    // In the placement's space: origin at the bottom left, y upward.
    double left = width * placement.x - placement.anchorX * w;
    double bottom = height * placement.y - placement.anchorY * h;
    left = std::clamp(left, 0.0, std::max(0.0, width - w));
    bottom = std::clamp(bottom, 0.0, std::max(0.0, height - h));
    return QRectF(left, height - bottom - h, w, h);
}

std::vector<OverlayRenderer::Arranged> OverlayRenderer::arrange(const OverlayContent& content,
                                                                QSizeF size, WallTime now)
{
    std::vector<Arranged> arranged;
    const double unit = unitFor(size, content.scale);
    if (!(unit > 0) || !std::isfinite(unit))
        return arranged;
    const Style& style = cache_->style(unit);
    PanelBuilder builder(*cache_, style, kMaximumContentShare * size.width());

    for (OverlayWidget widget : allOverlayWidgets) {
        const WidgetPlacement placement = content.layout.placement(widget);
        Drawing drawing;
        QSizeF itemSize;
        switch (widget) {
        case OverlayWidget::status:
            drawing = builder.status(content, now);
            break;
        case OverlayWidget::cues:
            drawing = builder.cues(content);
            break;
        case OverlayWidget::fields:
            drawing = builder.fields(content);
            break;
        case OverlayWidget::qlab:
            drawing = builder.qlab(content);
            break;
        case OverlayWidget::watermark: {
            auto watermark = builder.watermark(content);
            if (!watermark)
                continue;
            itemSize = PanelBuilder::watermarkSize(*watermark);
            drawing = std::move(*watermark);
            break;
        }
        }
        if (auto* panel = std::get_if<Panel>(&drawing)) {
            if (panel->elements.empty())
                continue;
            itemSize = panel->size;
        }
        const QRectF frame = place(placement, itemSize, size);
        if (auto* panel = std::get_if<Panel>(&drawing)) {
            // Panels on the right half of the picture hug their right edge.
            panel->alignment = frame.center().x() > size.width() / 2 ? Panel::Alignment::trailing
                                                                     : Panel::Alignment::leading;
        }
        arranged.push_back(Arranged{widget, frame, style, std::move(drawing)});
    }
    cache_->endFrame();
    return arranged;
}

namespace {

// Where large areas are filled: straight into the frame's memory when the painter draws
// untransformed onto a 32-bit image, else through the painter (the layout editor's canvas).
class Surface {
public:
    explicit Surface(QPainter& painter)
        : painter_(painter)
    {
        QPaintDevice* device = painter.device();
        if (device && device->devType() == QInternal::Image && painter.transform().isIdentity() &&
            !painter.hasClipping()) {
            auto* image = static_cast<QImage*>(device);
            if (FrameBlend::supports(*image))
                frame_ = image;
        }
    }

    QPainter& painter() { return painter_; }

    // A rounded rectangle on whole pixels, cut to the columns from `clipLeft` to `clipRight`
    // when given.
    void fillRoundedRect(const QRectF& rect, double radius, const QColor& color,
                         std::optional<double> clipLeft = std::nullopt,
                         std::optional<double> clipRight = std::nullopt)
    {
        const QRect pixels(QPoint(static_cast<int>(std::lround(rect.left())),
                                  static_cast<int>(std::lround(rect.top()))),
                           QPoint(static_cast<int>(std::lround(rect.right())) - 1,
                                  static_cast<int>(std::lround(rect.bottom())) - 1));
        const int left = clipLeft ? static_cast<int>(std::lround(*clipLeft)) : pixels.left();
        const int right =
            clipRight ? static_cast<int>(std::lround(*clipRight)) : pixels.right() + 1;
        if (frame_) {
            FrameBlend::fillRoundedRect(*frame_, pixels, radius, color, left, right);
            return;
        }
        painter_.save();
        if (clipLeft || clipRight)
            painter_.setClipRect(QRect(left, pixels.top(), right - left, pixels.height()),
                                 Qt::IntersectClip);
        painter_.setPen(Qt::NoPen);
        painter_.setBrush(color);
        painter_.drawRoundedRect(QRectF(pixels), radius, radius);
        painter_.restore();
    }

    void drawImage(QPoint topLeft, const QImage& premultiplied, double opacity)
    {
        if (frame_) {
            FrameBlend::drawImage(*frame_, topLeft, premultiplied, opacity);
            return;
        }
        painter_.save();
        painter_.setOpacity(opacity);
        painter_.drawImage(topLeft, premultiplied);
        painter_.restore();
    }

private:
    QPainter& painter_;
    QImage* frame_ = nullptr;
};

void drawRow(Surface& surface, Cache& cache, const Style& style, const OverlayPart& part,
             const QRectF& row, WallTime now)
{
    const double unit = style.unit;
    const double radius = kRowCornerRadius * unit;
    const double progress = part.progressAt(now);
    const bool complete = progress >= 1;

    QPainter& painter = surface.painter();
    // The track, and over its left part the progress fill, cut from the row's rounded shape
    // at the progress. The filled part is blended once, in the colour of both together.
    const QColor track = white(0.06);
    const double cut = row.left() + progress * row.width();
    if (progress > 0)
        surface.fillRoundedRect(row, radius,
                                FrameBlend::over(grey(0.85, complete ? 0.15 : 0.3), track),
                                std::nullopt, cut);
    if (progress < 1)
        surface.fillRoundedRect(row, radius, track,
                                progress > 0 ? std::optional(cut) : std::nullopt);
    if (part.isRunning && !complete) {
        // Stroked on the row's edge and clipped to the row: half the line shows, inside.
        const double line = std::max(unit, 1.0) / 2;
        painter.setPen(QPen(white(0.5), line));
        painter.setBrush(Qt::NoBrush);
        const QRectF inner = row.adjusted(line / 2, line / 2, -line / 2, -line / 2);
        painter.drawRoundedRect(inner, radius - line / 2, radius - line / 2);
        painter.setPen(Qt::NoPen);
    }

    const double inset = kRowInset * unit;
    const TextLine status = cache.line(style, FontRole::part, part.statusAt(now),
                                       complete ? kStatusDoneAlpha : kStatusAlpha);
    const double statusLeft = row.right() - inset - status.width();
    auto baseline = [&](const TextLine& line) {
        return row.top() + (row.height() + line.ascent() - line.descent()) / 2;
    };
    status.draw(painter, QPointF(statusLeft, baseline(status)));

    const double textAlpha = complete ? 0.5 : 1.0;
    double labelLeft = row.left() + inset;
    double labelRight = row.right() - kTagColumn * unit;
    if (!part.tag.isEmpty()) {
        const double tagColumn = (kTaggedColumn - kTagColumn) * unit;
        const TextLine tag =
            cache.line(style, FontRole::partNumber, part.tag, textAlpha, 0, row.width() / 3);
        tag.draw(painter, QPointF(labelLeft, baseline(tag)));
        labelLeft += std::max(tagColumn, tag.width() + kTagToLabel * unit);
    }
    if (!part.label.isEmpty() && labelRight - labelLeft > unit) {
        const TextLine label = cache.line(style, FontRole::part, part.label,
                                          kDetailAlpha * textAlpha, 0, labelRight - labelLeft);
        label.draw(painter, QPointF(labelLeft, baseline(label)));
    }

    if (part.isPausedAt(now)) {
        const double barWidth = kPauseBarWidth * unit;
        const double barHeight = kPauseBarHeight * unit;
        const double top = row.center().y() - barHeight / 2;
        const double rightBar = statusLeft - kPauseToStatus * unit - barWidth;
        const double leftBar = rightBar - kPauseBarGap * unit - barWidth;
        painter.setBrush(white(0.9));
        painter.drawRoundedRect(QRectF(leftBar, top, barWidth, barHeight), unit, unit);
        painter.drawRoundedRect(QRectF(rightBar, top, barWidth, barHeight), unit, unit);
    }
}

void drawPanel(Surface& surface, Cache& cache, const Style& style, const Panel& panel,
               const QRectF& frame, double opacity, WallTime now)
{
    QPainter& painter = surface.painter();
    const double unit = style.unit;
    surface.fillRoundedRect(frame, kPanelCornerRadius * unit, grey(0.04, opacity));

    const bool trailing = panel.alignment == Panel::Alignment::trailing;
    const double left = frame.left() + panel.padding.width();
    const double right = frame.right() - panel.padding.width();
    auto startFor = [&](double width) { return trailing ? right - width : left; };
    double y = frame.top() + panel.padding.height();
    bool first = true;
    for (const Panel::Element& element : panel.elements) {
        if (!first && !std::holds_alternative<Panel::Gap>(element))
            y += panel.lineSpacing;
        first = false;
        std::visit(
            Overloaded{
                [&](const Panel::Text& text) {
                    text.line.draw(painter,
                                   QPointF(startFor(text.line.width()), y + text.line.ascent()));
                },
                [&](const Panel::Pair& pair) {
                    const double ascent = std::max(pair.first.ascent(), pair.second.ascent());
                    const double x = startFor(Panel::width(pair));
                    pair.first.draw(painter, QPointF(x, y + ascent));
                    pair.second.draw(painter,
                                     QPointF(x + pair.first.width() + pair.gap, y + ascent));
                },
                [&](const Panel::Record& record) {
                    const double x = startFor(Panel::width(record));
                    const double middle = y + record.line.height() / 2;
                    painter.setPen(Qt::NoPen);
                    painter.setBrush(QColor(255, 59, 48)); // the system red
                    painter.drawEllipse(QPointF(x + record.dotDiameter / 2, middle),
                                        record.dotDiameter / 2, record.dotDiameter / 2);
                    record.line.draw(painter,
                                     QPointF(x + record.textOffset, y + record.line.ascent()));
                },
                [&](const Panel::Parts& parts) {
                    const double x = startFor(panel.contentWidth);
                    double rowTop = y;
                    for (const OverlayPart& part : parts.parts) {
                        drawRow(surface, cache, style, part,
                                QRectF(x, rowTop, panel.contentWidth, parts.rowHeight), now);
                        rowTop += parts.rowHeight + parts.rowSpacing;
                    }
                },
                [&](const Panel::Gap&) {},
            },
            element);
        y += Panel::height(element);
    }
}

// What an item's layer shows, as a 64-bit fingerprint: every text with its colour and
// place, every part row's figures at `now`, the watermark's picture.
class Signature {
public:
    void add(quint64 value)
    {
        hash_ = (hash_ ^ value) * 0x100000001b3ull;
        hash_ ^= hash_ >> 29;
    }
    void add(double value) { add(bitsOf(value)); }
    void add(const QString& text) { add(quint64(qHash(text)) ^ quint64(text.size()) << 48); }
    void add(const TextLine& line)
    {
        add(line.text());
        add(quint64(line.color().rgba()));
        add(line.width());
    }
    void add(QRectF rect)
    {
        for (double v : {rect.x(), rect.y(), rect.width(), rect.height()})
            add(v);
    }
    quint64 value() const { return hash_; }

private:
    quint64 hash_ = 0xcbf29ce484222325ull;
};

quint64 signatureOf(const OverlayRenderer::Arranged& item, QPoint origin, double opacity,
                    WallTime now)
{
    Signature s;
    s.add(item.frame.translated(-origin));
    s.add(item.style.unit);
    s.add(opacity);
    std::visit(
        Overloaded{
            [&](const Panel& panel) {
                s.add(quint64(panel.alignment));
                s.add(panel.contentWidth);
                for (const Panel::Element& element : panel.elements) {
                    s.add(quint64(element.index()));
                    std::visit(Overloaded{
                                   [&](const Panel::Text& text) { s.add(text.line); },
                                   [&](const Panel::Pair& pair) {
                                       s.add(pair.first);
                                       s.add(pair.second);
                                       s.add(pair.gap);
                                   },
                                   [&](const Panel::Record& record) { s.add(record.line); },
                                   [&](const Panel::Parts& parts) {
                                       for (const OverlayPart& part : parts.parts) {
                                           s.add(part.progressAt(now));
                                           s.add(part.statusAt(now));
                                           s.add(quint64(part.isPausedAt(now)) |
                                                 quint64(part.isRunning) << 1);
                                           s.add(part.tag);
                                           s.add(part.label);
                                       }
                                   },
                                   [&](const Panel::Gap& gap) { s.add(gap.height); },
                               },
                               element);
                }
            },
            [&](const OverlayRenderer::Watermark& watermark) {
                s.add(watermark.text);
                s.add(quint64(watermark.image.isNull() ? 0 : watermark.image.cacheKey()));
                s.add(watermark.imageSize.width());
                s.add(watermark.imageSize.height());
                s.add(watermark.opacity);
            },
        },
        item.drawing);
    return s.value();
}

// A rectangle grown to even coordinates on every side, so its chroma samples are whole.
QRect evenRect(QRect rect)
{
    const int left = rect.left() & ~1;
    const int top = rect.top() & ~1;
    const int right = (rect.right() + 2) & ~1; // one past, rounded up to even
    const int bottom = (rect.bottom() + 2) & ~1;
    return QRect(left, top, right - left, bottom - top);
}

} // namespace

void OverlayRenderer::draw(const OverlayContent& content, const YuvPlanes& frame, WallTime now)
{
    thread_.check();
    if (!content.isEnabled || frame.isNull())
        return;
    const QSize size(frame.width, frame.height);
    const auto arranged = arrange(content, QSizeF(size), now);
    const double opacity = std::clamp(content.opacity, 0.0, 1.0);
    const QRect whole = evenRect(QRect(QPoint(0, 0), size).adjusted(0, 0, -1, -1));
    for (const Arranged& item : arranged) {
        Cache::Layer& layer = cache_->layer(item.widget);
        // Where the item's pixels can be: a panel's rounded box (a pixel more for its edge's
        // antialiasing), or the composed watermark with its shadow.
        const Cache::ComposedWatermark* composed = nullptr;
        QPoint watermarkAt;
        QRect extent;
        if (const auto* watermark = std::get_if<Watermark>(&item.drawing)) {
            composed = &cache_->watermark(*watermark, item.style.unit);
            const QPointF at = item.frame.topLeft() - composed->offset;
            watermarkAt = QPoint(static_cast<int>(std::lround(at.x())),
                                 static_cast<int>(std::lround(at.y())));
            extent = QRect(watermarkAt, composed->image.size());
        } else {
            extent = item.frame.toAlignedRect().adjusted(-1, -1, 1, 1);
        }
        const QRect box = evenRect(extent).intersected(whole);
        if (box.isEmpty())
            continue;
        const quint64 signature = signatureOf(item, box.topLeft(), opacity, now);
        if (signature != layer.signature || box != layer.box || layer.image.isNull()) {
            if (layer.image.size() != box.size())
                layer.image = QImage(box.size(), QImage::Format_ARGB32_Premultiplied);
            layer.image.fill(Qt::transparent);
            if (composed) {
                FrameBlend::drawImage(layer.image, watermarkAt - box.topLeft(), composed->image,
                                      1.0);
            } else {
                // Whole-pixel offset: the panel rasterises exactly as it would in the frame.
                QPainter painter(&layer.image);
                painter.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing);
                Surface surface(painter);
                drawPanel(surface, *cache_, item.style, std::get<Panel>(item.drawing),
                          item.frame.translated(-box.topLeft()), opacity, now);
            }
            layer.converted.convert(layer.image);
            layer.signature = signature;
            layer.box = box;
            ++layersDrawn_;
        }
        layer.converted.blend(frame, box.left(), box.top());
    }
}

void OverlayRenderer::draw(const OverlayContent& content, QPainter& painter, QSizeF size,
                           WallTime now)
{
    thread_.check();
    if (!content.isEnabled)
        return;
    const auto arranged = arrange(content, size, now);
    painter.save();
    painter.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing |
                           QPainter::SmoothPixmapTransform);
    const double opacity = std::clamp(content.opacity, 0.0, 1.0);
    Surface surface(painter);
    for (const Arranged& item : arranged) {
        std::visit(Overloaded{
                       [&](const Panel& panel) {
                           drawPanel(surface, *cache_, item.style, panel, item.frame, opacity, now);
                       },
                       [&](const Watermark& watermark) {
                           const auto& composed = cache_->watermark(watermark, item.style.unit);
                           // Whole pixels: the composed image is blended, never resampled.
                           const QPointF at = item.frame.topLeft() - composed.offset;
                           surface.drawImage(QPoint(static_cast<int>(std::lround(at.x())),
                                                    static_cast<int>(std::lround(at.y()))),
                                             composed.image, 1.0);
                       },
                   },
                   item.drawing);
    }
    painter.restore();
}

} // namespace orvane
