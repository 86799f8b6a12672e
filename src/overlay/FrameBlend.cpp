#include "overlay/FrameBlend.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace orvane {

namespace {

// dst = src + dst * (255 - srcAlpha) / 255 on four 8-bit channels of a premultiplied source.
inline uint32_t blendOver(uint32_t source, uint32_t destination)
{
    const uint32_t inverse = 255 - (source >> 24);
    uint32_t redBlue = destination & 0x00ff00ffu;
    uint32_t alphaGreen = (destination >> 8) & 0x00ff00ffu;
    redBlue = redBlue * inverse + 0x00800080u;
    redBlue = ((redBlue + ((redBlue >> 8) & 0x00ff00ffu)) >> 8) & 0x00ff00ffu;
    alphaGreen = alphaGreen * inverse + 0x00800080u;
    alphaGreen = (alphaGreen + ((alphaGreen >> 8) & 0x00ff00ffu)) & 0xff00ff00u;
    return source + (redBlue | alphaGreen);
}

// A premultiplied colour scaled by a coverage of 0...255.
inline uint32_t scaled(uint32_t color, uint32_t coverage)
{
    uint32_t redBlue = (color & 0x00ff00ffu) * coverage + 0x00800080u;
    redBlue = ((redBlue + ((redBlue >> 8) & 0x00ff00ffu)) >> 8) & 0x00ff00ffu;
    uint32_t alphaGreen = ((color >> 8) & 0x00ff00ffu) * coverage + 0x00800080u;
    alphaGreen = (alphaGreen + ((alphaGreen >> 8) & 0x00ff00ffu)) & 0xff00ff00u;
    return redBlue | alphaGreen;
}

// One premultiplied colour over `count` pixels: the bulk of every panel.
void blendSpan(uint32_t* line, int count, uint32_t source)
{
    int x = 0;
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    const __m128i inverse = _mm_set1_epi16(static_cast<short>(255 - (source >> 24)));
    const __m128i half = _mm_set1_epi16(0x80);
    const __m128i colour = _mm_set1_epi32(static_cast<int>(source));
    auto mix = [&](__m128i wide) {
        wide = _mm_add_epi16(_mm_mullo_epi16(wide, inverse), half);
        return _mm_srli_epi16(_mm_add_epi16(wide, _mm_srli_epi16(wide, 8)), 8);
    };
    for (; x + 4 <= count; x += 4) {
        const __m128i pixels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(line + x));
        const __m128i low = mix(_mm_unpacklo_epi8(pixels, zero));
        const __m128i high = mix(_mm_unpackhi_epi8(pixels, zero));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(line + x),
                         _mm_add_epi8(_mm_packus_epi16(low, high), colour));
    }
#endif
    for (; x < count; ++x)
        line[x] = blendOver(source, line[x]);
}

} // namespace

bool FrameBlend::supports(const QImage& image)
{
    switch (image.format()) {
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied:
        return true;
    default:
        return false;
    }
}

void FrameBlend::fillRoundedRect(QImage& frame, const QRect& rect, double radius,
                                 const QColor& color, int clipLeft, int clipRight)
{
    QRect area = rect.intersected(frame.rect());
    area.setLeft(std::max(area.left(), clipLeft));
    const int right = std::min(area.right() + 1, clipRight);
    if (area.isEmpty() || right <= area.left() || color.alpha() == 0)
        return;
    const uint32_t source = qPremultiply(color.rgba());
    radius = std::clamp(radius, 0.0, std::min(rect.width(), rect.height()) / 2.0);
    const int corner = static_cast<int>(std::ceil(radius));

    // Coverage of the corner pixels, 0...255, for the top-left corner; the others mirror it.
    std::vector<uint8_t> coverage(static_cast<size_t>(corner) * corner);
    for (int j = 0; j < corner; ++j) {
        for (int i = 0; i < corner; ++i) {
            const double dx = std::max(0.0, radius - (i + 0.5));
            const double dy = std::max(0.0, radius - (j + 0.5));
            const double covered =
                std::clamp(radius + 0.5 - std::sqrt(dx * dx + dy * dy), 0.0, 1.0);
            coverage[static_cast<size_t>(j) * corner + i] =
                static_cast<uint8_t>(covered * 255 + 0.5);
        }
    }
    auto cornerPixel = [&](uint32_t* pixel, int i, int j) {
        const uint8_t covered = coverage[static_cast<size_t>(j) * corner + i];
        if (covered == 255)
            *pixel = blendOver(source, *pixel);
        else if (covered > 0)
            *pixel = blendOver(scaled(source, covered), *pixel);
    };

    uchar* const bits = frame.bits();
    const qsizetype stride = frame.bytesPerLine();
    const int innerLeft = std::max(area.left(), rect.left() + corner);
    const int innerRight = std::min(right, rect.right() + 1 - corner);
    for (int y = area.top(); y <= area.bottom(); ++y) {
        auto* line = reinterpret_cast<uint32_t*>(bits + y * stride);
        int j = -1; // row within a corner, counted from the rectangle's edge
        if (y < rect.top() + corner)
            j = y - rect.top();
        else if (y > rect.bottom() - corner)
            j = rect.bottom() - y;
        if (j < 0) {
            blendSpan(line + area.left(), right - area.left(), source);
            continue;
        }
        for (int x = area.left(); x < std::min(innerLeft, right); ++x)
            cornerPixel(line + x, x - rect.left(), j);
        if (innerRight > innerLeft)
            blendSpan(line + innerLeft, innerRight - innerLeft, source);
        for (int x = std::max(innerRight, area.left()); x < right; ++x)
            cornerPixel(line + x, rect.right() - x, j);
    }
}

QColor FrameBlend::over(const QColor& top, const QColor& bottom)
{
    const double topAlpha = top.alphaF();
    const double bottomAlpha = bottom.alphaF() * (1 - topAlpha);
    const double alpha = topAlpha + bottomAlpha;
    if (alpha <= 0)
        return QColor(0, 0, 0, 0);
    auto channel = [&](double a, double b) { return (a * topAlpha + b * bottomAlpha) / alpha; };
    return QColor::fromRgbF(static_cast<float>(channel(top.redF(), bottom.redF())),
                            static_cast<float>(channel(top.greenF(), bottom.greenF())),
                            static_cast<float>(channel(top.blueF(), bottom.blueF())),
                            static_cast<float>(alpha));
}

void FrameBlend::drawImage(QImage& frame, QPoint topLeft, const QImage& premultiplied,
                           double opacity)
{
    const QRect target = QRect(topLeft, premultiplied.size()).intersected(frame.rect());
    const auto alpha = static_cast<uint32_t>(std::lround(std::clamp(opacity, 0.0, 1.0) * 255));
    if (target.isEmpty() || alpha == 0)
        return;
    uchar* const bits = frame.bits();
    const qsizetype stride = frame.bytesPerLine();
    for (int y = target.top(); y <= target.bottom(); ++y) {
        auto* line = reinterpret_cast<uint32_t*>(bits + y * stride);
        const auto* source =
            reinterpret_cast<const uint32_t*>(premultiplied.constScanLine(y - topLeft.y()));
        for (int x = target.left(); x <= target.right(); ++x) {
            const uint32_t pixel = source[x - topLeft.x()];
            if (pixel == 0)
                continue;
            line[x] = blendOver(alpha == 255 ? pixel : scaled(pixel, alpha), line[x]);
        }
    }
}

} // namespace orvane
