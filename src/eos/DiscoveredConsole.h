#pragma once

#include "osc/NetworkKind.h"

#include <QString>

#include <optional>

namespace orvane {

// A console that a scan found, by its discovery reply or by a probe. Value type. Any thread.
struct DiscoveredConsole {
    QString host;          // IPv4 address in dotted decimal
    QString interfaceName; // the local interface it was found on
    NetworkKind network = NetworkKind::other;
    std::optional<QString> showName;
    std::optional<QString> version;
    std::optional<QString> deviceName;
    std::optional<QString> consoleID;

    // The identity in lists: the same console seen on two interfaces is listed twice.
    QString id() const { return host + QLatin1Char('%') + interfaceName; }
    // The show name when there is one, otherwise the console's own name.
    QString shownName() const
    {
        if (showName && !showName->isEmpty())
            return *showName;
        return deviceName.value_or(QString());
    }
    friend bool operator==(const DiscoveredConsole&, const DiscoveredConsole&) = default;
};

} // namespace orvane
