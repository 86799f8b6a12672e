#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <cstdint>
#include <optional>

// Lenient readers for the JSON that QLab sends: numbers and Booleans may arrive as JSON strings.
// Used only inside the qlab library. Any thread.
namespace orvane::qlabjson {

// A finite JSON number, or a string that parses as a finite decimal number.
std::optional<double> number(const QJsonValue& value);
// A number truncated toward zero; absent when not finite or outside the 64-bit range.
std::optional<std::int64_t> wholeNumber(const QJsonValue& value);
// A JSON Boolean, or one of the texts true/false, yes/no, 1/0 in any case.
std::optional<bool> boolean(const QJsonValue& value);
// A JSON string; a number is given as its shortest decimal text (QLab writes cue numbers both ways).
std::optional<QString> text(const QJsonValue& value);

} // namespace orvane::qlabjson
