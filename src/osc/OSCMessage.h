#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace orvane {

// The payload of an OSC null argument ("N", also read from "I").
struct OSCNull {
    friend bool operator==(OSCNull, OSCNull) = default;
};

// One OSC argument. The alternatives stand in the order of the OSC cases: int (32-bit),
// float (32-bit), string (UTF-8 text), blob (bytes), bool, null. Any thread.
using OSCArgument = std::variant<std::int32_t, float, std::string, QByteArray, bool, OSCNull>;

// The one message shape every source and the show data speak. Any thread.
struct OSCMessage {
    std::string address;
    std::vector<OSCArgument> arguments;
    friend bool operator==(const OSCMessage&, const OSCMessage&) = default;
};

// The type tag an argument is written with: 'i', 'f', 's', 'b', 'T'/'F' or 'N'.
char oscTypeTag(const OSCArgument& argument);

// One OSC packet holding `message`.
QByteArray encodeOSC(const OSCMessage& message);

// One well-formed message, or nothing.
std::optional<OSCMessage> decodeOSCMessage(QByteArrayView bytes);

// Every message of a packet: a message or a bundle (flattened, at most 8 levels deep).
// Empty when nothing in it can be read.
std::vector<OSCMessage> decodeOSCPacket(QByteArrayView bytes);

} // namespace orvane
