#include "overlay/YuvPlanes.h"

#include <algorithm>
#include <cmath>

namespace orvane {

namespace {

// BT.601 at video range, in 1/65536.
constexpr int kYr = 16829, kYg = 33039, kYb = 6416;    // 219/255 x (0.299, 0.587, 0.114)
constexpr int kBr = -9714, kBg = -19070, kBb = 28784;  // 224/255 x (-0.169, -0.331, 0.5)
constexpr int kRr = 28784, kRg = -24103, kRb = -4681;  // 224/255 x (0.5, -0.419, -0.081)

std::uint8_t clamp8(int value)
{
    return std::uint8_t(std::clamp(value, 0, 255));
}

} // namespace

namespace yuv {

YuvColour fromRgb(QRgb rgb)
{
    const int r = qRed(rgb), g = qGreen(rgb), b = qBlue(rgb);
    return {clamp8(16 + ((kYr * r + kYg * g + kYb * b + 32768) >> 16)),
            clamp8(128 + ((kBr * r + kBg * g + kBb * b + 32768) >> 16)),
            clamp8(128 + ((kRr * r + kRg * g + kRb * b + 32768) >> 16))};
}

void fromRgb(const QImage& rgb, const YuvPlanes& planes)
{
    const QImage source = rgb.format() == QImage::Format_RGB32 ||
                                  rgb.format() == QImage::Format_ARGB32
                              ? rgb
                              : rgb.convertToFormat(QImage::Format_RGB32);
    const int width = std::min(source.width(), planes.width);
    const int height = std::min(source.height(), planes.height);
    for (int y = 0; y < height; ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(source.constScanLine(y));
        std::uint8_t* luma = planes.y + std::ptrdiff_t(y) * planes.yStride;
        for (int x = 0; x < width; ++x)
            luma[x] = fromRgb(line[x]).y;
    }
    for (int cy = 0; cy < (height + 1) / 2; ++cy) {
        const auto* top = reinterpret_cast<const QRgb*>(source.constScanLine(2 * cy));
        const auto* bottom =
            reinterpret_cast<const QRgb*>(source.constScanLine(std::min(2 * cy + 1, height - 1)));
        for (int cx = 0; cx < (width + 1) / 2; ++cx) {
            const int right = std::min(2 * cx + 1, width - 1);
            int r = 0, g = 0, b = 0;
            for (const QRgb pixel : {top[2 * cx], top[right], bottom[2 * cx], bottom[right]}) {
                r += qRed(pixel);
                g += qGreen(pixel);
                b += qBlue(pixel);
            }
            const YuvColour mean = fromRgb(qRgb((r + 2) / 4, (g + 2) / 4, (b + 2) / 4));
            planes.cb[std::ptrdiff_t(cy) * planes.cStride + cx] = mean.cb;
            planes.cr[std::ptrdiff_t(cy) * planes.cStride + cx] = mean.cr;
        }
    }
}

QImage toRgb(const YuvPlanes& planes, QSize size)
{
    if (planes.isNull())
        return {};
    if (size.isEmpty())
        size = QSize(planes.width, planes.height);
    QImage image(size, QImage::Format_RGB32);
    std::vector<int> columns(std::size_t(size.width()));
    for (int x = 0; x < size.width(); ++x)
        columns[std::size_t(x)] = int(std::int64_t(x) * planes.width / size.width());
    for (int y = 0; y < size.height(); ++y) {
        const int row = int(std::int64_t(y) * planes.height / size.height());
        const std::uint8_t* luma = planes.y + std::ptrdiff_t(row) * planes.yStride;
        const std::uint8_t* cb = planes.cb + std::ptrdiff_t(row / 2) * planes.cStride;
        const std::uint8_t* cr = planes.cr + std::ptrdiff_t(row / 2) * planes.cStride;
        auto* out = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < size.width(); ++x) {
            const int column = columns[std::size_t(x)];
            // 255/219 x Y', and the BT.601 matrix scaled by 255/224, in 1/65536.
            const int l = 76309 * (luma[column] - 16);
            const int u = cb[column / 2] - 128;
            const int v = cr[column / 2] - 128;
            out[x] = qRgb(clamp8((l + 104597 * v + 32768) >> 16),
                          clamp8((l - 25675 * u - 53279 * v + 32768) >> 16),
                          clamp8((l + 132201 * u + 32768) >> 16));
        }
    }
    return image;
}

} // namespace yuv

YuvImage::YuvImage(QSize size)
{
    planes_.width = std::max(0, size.width());
    planes_.height = std::max(0, size.height());
    planes_.yStride = planes_.width;
    planes_.cStride = planes_.chromaWidth();
    const std::size_t luma = std::size_t(planes_.yStride) * std::size_t(planes_.height);
    const std::size_t chroma = std::size_t(planes_.cStride) * std::size_t(planes_.chromaHeight());
    memory_.assign(luma + 2 * chroma, 128);
    std::fill(memory_.begin(), memory_.begin() + std::ptrdiff_t(luma), std::uint8_t(16));
    planes_.y = memory_.data();
    planes_.cb = planes_.y + luma;
    planes_.cr = planes_.cb + chroma;
}

YuvImage YuvImage::fromRgb(const QImage& rgb)
{
    YuvImage image(rgb.size());
    yuv::fromRgb(rgb, image.planes_);
    return image;
}

} // namespace orvane
