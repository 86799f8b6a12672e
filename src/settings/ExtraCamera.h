#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

namespace orvane {

// One configured extra camera. Lists and feeds are keyed by `id`. A plain value.
struct ExtraCamera {
    QUuid id;
    std::optional<QString> deviceID;   // none until a capture device is chosen
    std::optional<QString> deviceName; // the device's name when it was chosen
    QString label;                     // the camera's label on its overlay
    bool isMirrored = false;

    // {"id": UUID text, "deviceID": …, "deviceName": …, "label": …, "isMirrored": …}; the
    // optional keys are left out when none and may be missing or null on decoding.
    QJsonObject toJson() const;
    static std::optional<ExtraCamera> fromJson(const QJsonValue& json);

    friend bool operator==(const ExtraCamera&, const ExtraCamera&) = default;
};

// The cameras as a JSON array; decoding fails as a whole when one camera is bad.
QJsonArray extraCamerasToJson(const QList<ExtraCamera>& cameras);
std::optional<QList<ExtraCamera>> extraCamerasFromJson(const QJsonValue& json);

} // namespace orvane
