#pragma once

#include <QString>

#include <cmath>

namespace orvane {

// A recording's running time as H:MM:SS ("0:04:09", "12:00:00"), whole seconds.
inline QString elapsedText(double seconds)
{
    const long long whole = seconds > 0 ? static_cast<long long>(std::floor(seconds)) : 0;
    return QStringLiteral("%1:%2:%3")
        .arg(whole / 3600)
        .arg(whole / 60 % 60, 2, 10, QLatin1Char('0'))
        .arg(whole % 60, 2, 10, QLatin1Char('0'));
}

} // namespace orvane
