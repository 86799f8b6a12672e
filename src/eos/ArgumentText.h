#pragma once

#include "osc/OSCMessage.h"

#include <QString>

#include <array>
#include <charconv>
#include <optional>
#include <type_traits>

namespace orvane {

// An argument that a console uses as a name, identity or version, as text: an int in decimal,
// a float in the shortest text that reads back to it, a string as it is; any other type is
// absent. Any thread.
inline std::optional<QString> argumentText(const OSCArgument& argument)
{
    return std::visit(
        [](const auto& value) -> std::optional<QString> {
            using Value = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<Value, std::int32_t>) {
                return QString::number(value);
            } else if constexpr (std::is_same_v<Value, float>) {
                std::array<char, 32> buffer{};
                const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr;
                return QString::fromLatin1(buffer.data(), end - buffer.data());
            } else if constexpr (std::is_same_v<Value, std::string>) {
                return QString::fromStdString(value);
            } else {
                return std::nullopt;
            }
        },
        argument);
}

// The text of argument `index` of `message`, when it has one.
inline std::optional<QString> argumentText(const OSCMessage& message, std::size_t index)
{
    if (index >= message.arguments.size())
        return std::nullopt;
    return argumentText(message.arguments[index]);
}

} // namespace orvane
