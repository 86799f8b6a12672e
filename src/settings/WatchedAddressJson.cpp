#include "settings/WatchedAddressJson.h"

#include "settings/JsonFields.h"

namespace orvane {

QJsonObject watchedAddressToJson(const WatchedAddress& watched)
{
    return QJsonObject{
        {"id", json::uuidText(watched.id)}, {"label", watched.label}, {"address", watched.address}};
}

std::optional<WatchedAddress> watchedAddressFromJson(const QJsonValue& json)
{
    if (!json.isObject())
        return std::nullopt;
    const QJsonObject object = json.toObject();
    const auto id = json::uuid(object, "id");
    const auto label = json::string(object, "label");
    const auto address = json::string(object, "address");
    if (!id || !label || !address)
        return std::nullopt;
    return WatchedAddress{*id, *label, *address};
}

QJsonArray watchedAddressesToJson(const QList<WatchedAddress>& list)
{
    QJsonArray array;
    for (const WatchedAddress& watched : list)
        array.append(watchedAddressToJson(watched));
    return array;
}

std::optional<QList<WatchedAddress>> watchedAddressesFromJson(const QJsonValue& json)
{
    if (!json.isArray())
        return std::nullopt;
    QList<WatchedAddress> list;
    for (const QJsonValue& entry : json.toArray()) {
        auto watched = watchedAddressFromJson(entry);
        if (!watched)
            return std::nullopt;
        list.append(std::move(*watched));
    }
    return list;
}

} // namespace orvane
