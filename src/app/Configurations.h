#pragma once

#include "capture/CaptureDevices.h"
#include "capture/Feed.h"
#include "eos/EosConnection.h"
#include "outputs/Outputs.h"
#include "settings/OverlayLook.h"
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

// What the overlay takes from the settings and the model, with every camera's label (the
// main camera's under the null id); the show's side reaches the overlay through OverlayFeed,
// which assembles the content and hands it to every camera under its label.
struct OverlayUpdate {
    OverlayLook look;
    bool isEnabled = true;
    std::optional<WallTime> recordingStart;
    qint64 watermarkKey = 0; // the watermark image's cache key; 0 for none
    QMap<QUuid, QString> labels;
    friend bool operator==(const OverlayUpdate&, const OverlayUpdate&) = default;
};

} // namespace orvane
