#pragma once

#include "osc/OSCMessage.h"

#include <QString>

#include <cstddef>
#include <optional>
#include <string>

namespace orvane {

// A float as the shortest decimal text that reads back to the same 32-bit value, with ".0" on
// a whole number: "0.5", "1.0", "-1e-06". Any thread.
std::string oscFloatText(float value);

// An argument as text: an int in decimal, a float as `oscFloatText`, a string as it is;
// nothing for any other type. Any thread.
std::optional<QString> oscArgumentText(const OSCArgument& argument);
// The text of argument `index` of `message`, when it has one.
std::optional<QString> oscArgumentText(const OSCMessage& message, std::size_t index);

// A message as one line a technician reads: `ADDRESS TAGS ARG…`, where TAGS is "," plus the
// tag each argument is written with; an int is decimal, a float as `oscFloatText`, a string a
// JSON string literal, a blob its bytes in
// lower-case hex; T, F and N add no argument text.
//     /eos/out/active/cue/text ,s "1/14 Intro 5.0 40%"
// Any thread.
std::string oscMessageText(const OSCMessage& message);

} // namespace orvane
