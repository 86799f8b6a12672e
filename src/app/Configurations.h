#pragma once

#include "capture/CaptureDevices.h"
#include "capture/Feed.h"
#include "eos/EosConnection.h"
#include "outputs/Outputs.h"
#include "overlay/OverlayContent.h"
#include "show/WatchedAddress.h"

#include <QList>
#include <QMap>
#include <QString>
#include <QUuid>

#include <optional>
#include <vector>

namespace orvane {

// The plain values the application model derives from the settings and the state of its
// components, one per component it configures. Each is compared whole: a change of any field
// is a change of the value, and only a change is applied. Any thread.

// The main camera and its microphone.
struct CaptureConfiguration {
    std::optional<QString> cameraID;
    std::optional<QString> microphoneID; // none when sound is not recorded
    CaptureDevices::Authorization cameraAuthorization =
        CaptureDevices::Authorization::notDetermined;
    std::optional<QString> missingCameraName; // a chosen camera that is not attached
    bool hasCameras = false;                  // a camera is attached
    friend bool operator==(const CaptureConfiguration&, const CaptureConfiguration&) = default;
};

// The listener, the links and the outputs.
struct NetworkConfiguration {
    bool oscEnabled = false;
    int oscPort = 0;
    EosConnection::Configuration eos;
    QList<WatchedAddress> watched;
    bool qlabEnabled = false;
    QString qlabHost;
    int qlabPort = 0;
    QString qlabPasscode;
    QString qlabWorkspace;
    Outputs::Configuration outputs;
    friend bool operator==(const NetworkConfiguration&, const NetworkConfiguration&) = default;
};

// The extra cameras.
struct ExtraConfiguration {
    std::vector<Feed> feeds;
    bool isAuthorized = false;
    friend bool operator==(const ExtraConfiguration&, const ExtraConfiguration&) = default;
};

// What every camera draws: the same content, each under its own label (the main camera's
// under the null id).
struct OverlayUpdate {
    OverlayContent content;
    QMap<QUuid, QString> labels;
    friend bool operator==(const OverlayUpdate&, const OverlayUpdate&) = default;
};

} // namespace orvane
