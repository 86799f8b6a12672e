#pragma once

#include <QString>
#include <QUuid>

namespace orvane {

// An OSC address that the operator watches: any message to it shows on the overlay as a
// field under `label`. An address ending in "*" watches every address that begins with the
// text before it. Persisted in the settings as JSON ("id", "label", "address").
struct WatchedAddress {
    QUuid id;
    QString label;
    QString address;
    friend bool operator==(const WatchedAddress&, const WatchedAddress&) = default;
};

} // namespace orvane
