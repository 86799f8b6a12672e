#pragma once

#include "osc/OSCMessage.h"

#include <string>

namespace orvane {

// A message as one line a technician reads: `ADDRESS TAGS ARG…`, where TAGS is "," plus the
// tag each argument is written with; an int is decimal, a float the shortest text that reads
// back to the same 32-bit value, a string a JSON string literal, a blob its bytes in
// lower-case hex; T, F and N add no argument text.
//     /eos/out/active/cue/text ,s "1/14 Intro 5.0 40%"
// Any thread.
std::string oscMessageText(const OSCMessage& message);

} // namespace orvane
