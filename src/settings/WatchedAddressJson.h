#pragma once

#include "show/WatchedAddress.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>

#include <optional>

// The JSON form in which the settings keep the watched OSC addresses:
// [{"id": UUID text, "label": …, "address": …}, …]. Decoding fails as a whole when one
// entry is bad.
namespace orvane {

QJsonObject watchedAddressToJson(const WatchedAddress& watched);
std::optional<WatchedAddress> watchedAddressFromJson(const QJsonValue& json);

QJsonArray watchedAddressesToJson(const QList<WatchedAddress>& list);
std::optional<QList<WatchedAddress>> watchedAddressesFromJson(const QJsonValue& json);

} // namespace orvane
