#pragma once

#include <QString>
#include <QStringView>

#include <optional>

namespace orvane {

// The kind of network interface a link uses or a console was found on. Stored in the
// settings by its raw text ("wired", "wifi", "other").
enum class NetworkKind {
    wired,
    wifi,
    other,
};

inline QString rawValue(NetworkKind kind)
{
    switch (kind) {
    case NetworkKind::wired:
        return QStringLiteral("wired");
    case NetworkKind::wifi:
        return QStringLiteral("wifi");
    case NetworkKind::other:
        return QStringLiteral("other");
    }
    return {};
}

// The name people see: "Wired", "Wi-Fi" or "Network".
inline QString shownName(NetworkKind kind)
{
    switch (kind) {
    case NetworkKind::wired:
        return QStringLiteral("Wired");
    case NetworkKind::wifi:
        return QStringLiteral("Wi-Fi");
    case NetworkKind::other:
        return QStringLiteral("Network");
    }
    return {};
}

// The kind of the network interface `name`, read from the sysfs tree at `sysClassNet`: a
// `wireless` folder or a `phy80211` link means Wi-Fi, an Ethernet-type interface of a real
// device wired, anything else (loopback, veth, bridges, tunnels, a missing interface) other.
NetworkKind networkKindOfInterface(const QString& name,
                                   const QString& sysClassNet = QStringLiteral("/sys/class/net"));

inline std::optional<NetworkKind> networkKindFromRawValue(QStringView text)
{
    if (text == u"wired")
        return NetworkKind::wired;
    if (text == u"wifi")
        return NetworkKind::wifi;
    if (text == u"other")
        return NetworkKind::other;
    return std::nullopt;
}

} // namespace orvane
