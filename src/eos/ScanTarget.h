#pragma once

#include "osc/NetworkKind.h"

#include <QString>

#include <cstdint>

namespace orvane {

// One local IPv4 interface that a console scan covers. Addresses are in host order.
// Value type. Any thread.
struct ScanTarget {
    QString name;
    NetworkKind network = NetworkKind::other;
    std::uint32_t address = 0;
    std::uint32_t netmask = 0;
    int index = 0;

    std::uint32_t broadcastAddress() const { return address | ~netmask; }
    friend bool operator==(const ScanTarget&, const ScanTarget&) = default;
};

} // namespace orvane
