#include "capture/Frame.h"

#include <QImage>

namespace orvane {

QImage Frame::image()
{
    return QImage(pixels, width, height, bytesPerLine, QImage::Format_RGB32);
}

} // namespace orvane
