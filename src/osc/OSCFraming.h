#pragma once

#include <QString>
#include <QStringView>

#include <optional>

namespace orvane {

// How OSC packets are framed on a TCP stream: SLIP frames (OSC 1.1) or a 32-bit big-endian
// length prefix (OSC 1.0). Stored in the settings by its raw text.
enum class OSCFraming {
    slip,
    lengthPrefixed,
};

inline QString rawValue(OSCFraming framing)
{
    switch (framing) {
    case OSCFraming::slip:
        return QStringLiteral("slip");
    case OSCFraming::lengthPrefixed:
        return QStringLiteral("lengthPrefixed");
    }
    return {};
}

inline std::optional<OSCFraming> oscFramingFromRawValue(QStringView text)
{
    if (text == u"slip")
        return OSCFraming::slip;
    if (text == u"lengthPrefixed")
        return OSCFraming::lengthPrefixed;
    return std::nullopt;
}

} // namespace orvane
