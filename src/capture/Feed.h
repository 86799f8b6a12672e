#pragma once

#include <QString>
#include <QUuid>

#include <optional>

namespace orvane {

// What an extra camera feed should show, derived from the settings and the device list.
// Plain value.
struct Feed {
    QUuid id;                             // the extra camera's
    std::optional<QString> deviceID;      // none when no camera is chosen
    std::optional<QString> deviceName;    // remembered, for when it is unplugged
    bool isAvailable = false;             // the chosen device is attached
    bool isMirrored = false;
    friend bool operator==(const Feed&, const Feed&) = default;
};

} // namespace orvane
