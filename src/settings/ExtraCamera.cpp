#include "settings/ExtraCamera.h"

#include "settings/JsonFields.h"

namespace orvane {

QJsonObject ExtraCamera::toJson() const
{
    QJsonObject object{{"id", json::uuidText(id)}, {"label", label}, {"isMirrored", isMirrored}};
    if (deviceID)
        object.insert(QStringLiteral("deviceID"), *deviceID);
    if (deviceName)
        object.insert(QStringLiteral("deviceName"), *deviceName);
    return object;
}

std::optional<ExtraCamera> ExtraCamera::fromJson(const QJsonValue& json)
{
    if (!json.isObject())
        return std::nullopt;
    const QJsonObject object = json.toObject();
    const auto id = json::uuid(object, "id");
    const auto deviceID = json::optionalString(object, "deviceID");
    const auto deviceName = json::optionalString(object, "deviceName");
    const auto label = json::string(object, "label");
    const auto isMirrored = json::boolean(object, "isMirrored");
    if (!id || !deviceID || !deviceName || !label || !isMirrored)
        return std::nullopt;
    return ExtraCamera{*id, *deviceID, *deviceName, *label, *isMirrored};
}

QJsonArray extraCamerasToJson(const QList<ExtraCamera>& cameras)
{
    QJsonArray array;
    for (const ExtraCamera& camera : cameras)
        array.append(camera.toJson());
    return array;
}

std::optional<QList<ExtraCamera>> extraCamerasFromJson(const QJsonValue& json)
{
    if (!json.isArray())
        return std::nullopt;
    QList<ExtraCamera> cameras;
    for (const QJsonValue& entry : json.toArray()) {
        auto camera = ExtraCamera::fromJson(entry);
        if (!camera)
            return std::nullopt;
        cameras.append(std::move(*camera));
    }
    return cameras;
}

} // namespace orvane
