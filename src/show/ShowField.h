#pragma once

#include "base/Clock.h"

#include <QString>

namespace orvane {

// One custom line of the overlay: a value that arrived over OSC under a label. A plain value;
// any thread.
struct ShowField {
    QString id;    // the address that set it: "/tavrin/field/Scene", or a watched address
    QString label; // shown before the value
    QString value;
    WallTime receivedAt{};

    friend bool operator==(const ShowField&, const ShowField&) = default;
};

} // namespace orvane
