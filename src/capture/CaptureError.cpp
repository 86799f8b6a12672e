#include "capture/CaptureError.h"

#include "capture/CaptureLog.h"

namespace orvane {

QString CaptureError::description() const
{
    switch (kind) {
    case Kind::writerFailed:
        return QStringLiteral("The recording couldn't be saved. ") + message;
    case Kind::cameraUnavailable:
        return QStringLiteral("The camera couldn't be opened. Another app may be using it.");
    case Kind::microphoneUnavailable:
        return QStringLiteral("The audio input couldn't be opened.");
    }
    return {};
}

} // namespace orvane

Q_LOGGING_CATEGORY(lcCapture, "orvane.capture")
