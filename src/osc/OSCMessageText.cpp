#include "osc/OSCMessageText.h"

#include <array>
#include <charconv>
#include <cmath>

namespace orvane {

namespace {

void appendJsonString(std::string& to, const std::string& text)
{
    static constexpr char kHex[] = "0123456789abcdef";
    to += '"';
    for (const char c : text) {
        switch (c) {
        case '"':
            to += "\\\"";
            break;
        case '\\':
            to += "\\\\";
            break;
        case '\b':
            to += "\\b";
            break;
        case '\f':
            to += "\\f";
            break;
        case '\n':
            to += "\\n";
            break;
        case '\r':
            to += "\\r";
            break;
        case '\t':
            to += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                to += "\\u00";
                to += kHex[(c >> 4) & 0xF];
                to += kHex[c & 0xF];
            } else {
                to += c;
            }
        }
    }
    to += '"';
}

void appendArgument(std::string& to, const OSCArgument& argument)
{
    std::array<char, 32> buffer{};
    if (const auto* number = std::get_if<std::int32_t>(&argument)) {
        const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), *number).ptr;
        to.append(buffer.data(), end);
    } else if (const auto* real = std::get_if<float>(&argument)) {
        to += oscFloatText(*real);
    } else if (const auto* text = std::get_if<std::string>(&argument)) {
        appendJsonString(to, *text);
    } else if (const auto* blob = std::get_if<QByteArray>(&argument)) {
        to += blob->toHex().toStdString();
    }
}

bool printsText(const OSCArgument& argument)
{
    return !std::holds_alternative<bool>(argument) && !std::holds_alternative<OSCNull>(argument);
}

} // namespace

std::string oscFloatText(float value)
{
    // Without a format, to_chars writes the shortest text that reads back to `value`.
    std::array<char, 32> buffer{};
    const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr;
    std::string text(buffer.data(), end);
    if (std::isfinite(value) && text.find_first_of(".e") == std::string::npos)
        text += ".0";
    return text;
}

std::optional<QString> oscArgumentText(const OSCArgument& argument)
{
    if (const auto* number = std::get_if<std::int32_t>(&argument))
        return QString::number(*number);
    if (const auto* real = std::get_if<float>(&argument))
        return QString::fromStdString(oscFloatText(*real));
    if (const auto* text = std::get_if<std::string>(&argument))
        return QString::fromStdString(*text);
    return std::nullopt;
}

std::optional<QString> oscArgumentText(const OSCMessage& message, std::size_t index)
{
    if (index >= message.arguments.size())
        return std::nullopt;
    return oscArgumentText(message.arguments[index]);
}

std::string oscMessageText(const OSCMessage& message)
{
    std::string line = message.address;
    line += " ,";
    for (const OSCArgument& argument : message.arguments)
        line += oscTypeTag(argument);
    for (const OSCArgument& argument : message.arguments) {
        if (!printsText(argument))
            continue;
        line += ' ';
        appendArgument(line, argument);
    }
    return line;
}

} // namespace orvane
