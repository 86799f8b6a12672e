#pragma once

#include "overlay/YuvPlanes.h"

#include <QImage>
#include <QSize>

struct SwsContext;

namespace orvane {

// Turns camera frames into pictures for the screen at the size they are shown: scaled
// (bilinear) and converted from BT.601 video-range YUV in one pass by libswscale, into one
// picture kept from frame to frame, so a preview at 30 frames a second neither converts
// pixels it does not show nor allocates a picture per frame. One per view; one thread.
class FramePreview {
public:
    FramePreview() = default;
    FramePreview(const FramePreview&) = delete;
    FramePreview& operator=(const FramePreview&) = delete;
    ~FramePreview();

    // The frame at `size`; a null picture for an empty frame or size. The picture is written
    // again by the next call: draw it, don't keep it.
    const QImage& convert(const YuvPlanes& planes, QSize size);

private:
    SwsContext* context_ = nullptr;
    QImage picture_;
};

} // namespace orvane
