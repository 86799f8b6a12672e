#pragma once

#include <QString>

namespace orvane {

// One camera or microphone as the device lists show it: an identifier that stays the same
// across launches and the name people read. Plain value, any thread.
struct CaptureSource {
    QString id;
    QString name;
    friend bool operator==(const CaptureSource&, const CaptureSource&) = default;
};

} // namespace orvane
