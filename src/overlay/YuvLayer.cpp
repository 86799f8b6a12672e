#include "overlay/YuvLayer.h"

#include <algorithm>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace orvane {

namespace {

// target = premultiplied + target x inverse / 255, for `count` samples.
void blendRow(std::uint8_t* target, const std::uint8_t* premultiplied,
              const std::uint8_t* inverse, int count)
{
    int x = 0;
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    const __m128i half = _mm_set1_epi16(128);
    auto scale = [&](__m128i value, __m128i by) {
        __m128i t = _mm_add_epi16(_mm_mullo_epi16(value, by), half);
        return _mm_srli_epi16(_mm_add_epi16(t, _mm_srli_epi16(t, 8)), 8);
    };
    for (; x + 16 <= count; x += 16) {
        const __m128i pixels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(target + x));
        const __m128i by = _mm_loadu_si128(reinterpret_cast<const __m128i*>(inverse + x));
        const __m128i low = scale(_mm_unpacklo_epi8(pixels, zero), _mm_unpacklo_epi8(by, zero));
        const __m128i high = scale(_mm_unpackhi_epi8(pixels, zero), _mm_unpackhi_epi8(by, zero));
        const __m128i top = _mm_loadu_si128(reinterpret_cast<const __m128i*>(premultiplied + x));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(target + x),
                         _mm_adds_epu8(_mm_packus_epi16(low, high), top));
    }
#endif
    for (; x < count; ++x) {
        const int t = target[x] * inverse[x] + 128;
        target[x] = std::uint8_t(std::min(255, premultiplied[x] + ((t + (t >> 8)) >> 8)));
    }
}

} // namespace

void YuvLayer::convert(const QImage& layer)
{
    width_ = layer.width();
    height_ = layer.height();
    const int chromaWidth = (width_ + 1) / 2;
    const int chromaHeight = (height_ + 1) / 2;
    luma_.resize(std::size_t(width_) * std::size_t(height_));
    lumaInverse_.resize(luma_.size());
    const std::size_t chroma = std::size_t(chromaWidth) * std::size_t(chromaHeight);
    cb_.resize(chroma);
    cr_.resize(chroma);
    chromaInverse_.resize(chroma);
    // BT.601 at video range in 1/65536 (see YuvPlanes.cpp), the offsets scaled by alpha.
    for (int y = 0; y < height_; ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(layer.constScanLine(y));
        std::uint8_t* luma = luma_.data() + std::ptrdiff_t(y) * width_;
        std::uint8_t* inverse = lumaInverse_.data() + std::ptrdiff_t(y) * width_;
        for (int x = 0; x < width_; ++x) {
            const QRgb p = line[x];
            const int a = qAlpha(p);
            luma[x] = std::uint8_t(
                (4112 * a + 16829 * qRed(p) + 33039 * qGreen(p) + 6416 * qBlue(p) + 32768) >> 16);
            inverse[x] = std::uint8_t(255 - a);
        }
    }
    for (int cy = 0; cy < chromaHeight; ++cy) {
        const auto* top = reinterpret_cast<const QRgb*>(layer.constScanLine(2 * cy));
        const auto* bottom = reinterpret_cast<const QRgb*>(
            layer.constScanLine(std::min(2 * cy + 1, height_ - 1)));
        const std::ptrdiff_t row = std::ptrdiff_t(cy) * chromaWidth;
        for (int cx = 0; cx < chromaWidth; ++cx) {
            const int right = std::min(2 * cx + 1, width_ - 1);
            int r = 0, g = 0, b = 0, a = 0;
            for (const QRgb p : {top[2 * cx], top[right], bottom[2 * cx], bottom[right]}) {
                r += qRed(p);
                g += qGreen(p);
                b += qBlue(p);
                a += qAlpha(p);
            }
            cb_[std::size_t(row + cx)] = std::uint8_t(std::clamp(
                (32896 * a - 9714 * r - 19070 * g + 28784 * b + 131072) >> 18, 0, 255));
            cr_[std::size_t(row + cx)] = std::uint8_t(std::clamp(
                (32896 * a + 28784 * r - 24103 * g - 4681 * b + 131072) >> 18, 0, 255));
            chromaInverse_[std::size_t(row + cx)] = std::uint8_t(255 - (a + 2) / 4);
        }
    }
}

void YuvLayer::blend(const YuvPlanes& planes, int left, int top) const
{
    const int firstX = std::max(0, -left);
    const int firstY = std::max(0, -top);
    const int lastX = std::min(width_, planes.width - left);
    const int lastY = std::min(height_, planes.height - top);
    if (planes.isNull() || firstX >= lastX || firstY >= lastY)
        return;
    for (int y = firstY; y < lastY; ++y) {
        const std::ptrdiff_t at = std::ptrdiff_t(y) * width_ + firstX;
        blendRow(planes.y + std::ptrdiff_t(top + y) * planes.yStride + left + firstX,
                 luma_.data() + at, lumaInverse_.data() + at, lastX - firstX);
    }
    const int chromaWidth = (width_ + 1) / 2;
    const int firstCX = firstX / 2;
    const int lastCX = std::min((lastX + 1) / 2, planes.chromaWidth() - left / 2);
    const int lastCY = std::min((lastY + 1) / 2, planes.chromaHeight() - top / 2);
    for (int cy = firstY / 2; cy < lastCY; ++cy) {
        const std::ptrdiff_t at = std::ptrdiff_t(cy) * chromaWidth + firstCX;
        const std::ptrdiff_t target = std::ptrdiff_t(top / 2 + cy) * planes.cStride + left / 2 + firstCX;
        blendRow(planes.cb + target, cb_.data() + at, chromaInverse_.data() + at, lastCX - firstCX);
        blendRow(planes.cr + target, cr_.data() + at, chromaInverse_.data() + at, lastCX - firstCX);
    }
}

} // namespace orvane
