#pragma once

#include <QColor>
#include <QImage>
#include <QRect>

#include <climits>

namespace orvane {

// Direct blending into a 32-bit frame for the overlay's large areas (panel backgrounds, row
// bars, the composed watermark). The raster engine hands tall fills to a thread pool, whose
// wake-ups cost more than the blending on a busy machine; these loops stay on the calling
// thread. Works on Format_RGB32, ARGB32 and ARGB32_Premultiplied frames that are opaque,
// as camera frames are. Any thread.
class FrameBlend {
public:
    // Whether `image` is a frame these functions can draw into.
    static bool supports(const QImage& image);

    // Fills `rect` with rounded corners of `radius` (antialiased) in `color`, drawing only
    // the columns from `clipLeft` up to (not including) `clipRight`.
    static void fillRoundedRect(QImage& frame, const QRect& rect, double radius,
                                const QColor& color, int clipLeft = INT_MIN,
                                int clipRight = INT_MAX);

    // `top` over `bottom`: the one colour that blends like the two, one after the other.
    static QColor over(const QColor& top, const QColor& bottom);

    // Blends a premultiplied ARGB image over the frame at `topLeft`, at `opacity`.
    static void drawImage(QImage& frame, QPoint topLeft, const QImage& premultiplied,
                          double opacity);
};

} // namespace orvane
