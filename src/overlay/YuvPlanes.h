#pragma once

#include <QImage>
#include <QRgb>
#include <QSize>

#include <cstdint>
#include <vector>

namespace orvane {

// A picture in the pipeline's one layout, I420: 8-bit Y at full size, then Cb and Cr at half
// the width and half the height (rounded up), BT.601 at video (limited) range, as a USB
// camera delivers it. A view of memory owned elsewhere (a capture buffer); any thread.
struct YuvPlanes {
    std::uint8_t* y = nullptr;
    std::uint8_t* cb = nullptr;
    std::uint8_t* cr = nullptr;
    int yStride = 0;
    int cStride = 0;
    int width = 0;
    int height = 0;

    int chromaWidth() const { return (width + 1) / 2; }
    int chromaHeight() const { return (height + 1) / 2; }
    bool isNull() const { return !y || width <= 0 || height <= 0; }
};

// One colour in the layout's terms.
struct YuvColour {
    std::uint8_t y = 16;
    std::uint8_t cb = 128;
    std::uint8_t cr = 128;
};

// The conversions between the pipeline's layout and 32-bit RGB, for the few places that need
// RGB: pictures drawn by Qt (the test backdrop), the window's preview and the tests.
namespace yuv {

YuvColour fromRgb(QRgb rgb);
// `rgb` (any 32-bit format, the same size) into `planes`; each chroma sample the mean of its
// 2 x 2 block.
void fromRgb(const QImage& rgb, const YuvPlanes& planes);
// `planes` as a Format_RGB32 picture of `size` (the picture's own size when empty), each
// shown pixel sampled from the nearest: only what is shown is converted.
QImage toRgb(const YuvPlanes& planes, QSize size = {});

} // namespace yuv

// An I420 picture in memory of its own, for the tests, the benches and still pictures.
class YuvImage {
public:
    YuvImage() = default;
    explicit YuvImage(QSize size);
    YuvImage(YuvImage&&) = default; // the planes move with the memory
    YuvImage& operator=(YuvImage&&) = default;
    YuvImage(const YuvImage&) = delete;
    YuvImage& operator=(const YuvImage&) = delete;
    static YuvImage fromRgb(const QImage& rgb);

    const YuvPlanes& planes() const { return planes_; }
    QSize size() const { return {planes_.width, planes_.height}; }
    QImage toRgb() const { return yuv::toRgb(planes_); }

private:
    std::vector<std::uint8_t> memory_;
    YuvPlanes planes_;
};

} // namespace orvane
