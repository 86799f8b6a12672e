#pragma once

#include "base/Clock.h"
#include "overlay/OverlayContent.h"

#include <QImage>
#include <QSize>

namespace orvane {

// A still of the overlay for people to look at without a camera: the content drawn over a
// dim stage backdrop (a dark house, a lit floor and two warm pools of light), so the panels
// are judged over a picture rather than over black. Any thread.
class OverlayPicture {
public:
    // The backdrop alone, Format_RGB32 (a BGRA frame's memory order).
    static QImage backdrop(QSize size);
    // The backdrop with `content` blended over it as it would be on a camera's frame at
    // `now` (through the YUV layout and back).
    static QImage render(const OverlayContent& content, QSize size, WallTime now);
};

} // namespace orvane
