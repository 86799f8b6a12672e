#pragma once

#include "overlay/YuvPlanes.h"

#include <QImage>

#include <cstdint>
#include <vector>

namespace orvane {

// A premultiplied RGBA layer (one overlay panel) made ready to blend into I420 planes: its
// premultiplied luma and inverse alpha per pixel, and per chroma sample the mean of the
// premultiplied chroma and of the alpha of its 2 x 2 block, so a panel's edge that crosses a
// chroma sample mixes the sample's colour by the share of the block it covers. Converted once
// when the panel changes, blended at every frame. One thread at a time.
class YuvLayer {
public:
    // Takes `layer` (Format_ARGB32_Premultiplied).
    void convert(const QImage& layer);
    // Blends over `planes` with the layer's top-left corner at (`left`, `top`), both even;
    // what falls outside the planes is left out.
    void blend(const YuvPlanes& planes, int left, int top) const;

    int width() const { return width_; }
    int height() const { return height_; }

private:
    int width_ = 0;
    int height_ = 0;
    std::vector<std::uint8_t> luma_;         // premultiplied Y
    std::vector<std::uint8_t> lumaInverse_;  // 255 - alpha
    std::vector<std::uint8_t> cb_;           // premultiplied, per chroma sample
    std::vector<std::uint8_t> cr_;
    std::vector<std::uint8_t> chromaInverse_;
};

} // namespace orvane
