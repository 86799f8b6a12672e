#pragma once

#include "osc/OSCMessage.h"
#include "show/WatchedAddress.h"

#include <QLocale>
#include <QString>
#include <QStringView>

#include <optional>
#include <vector>

namespace orvane {

// The text value of a message: its first argument as text (an int in decimal, a float as its
// shortest decimal text such as "0.5" or "1.0", a string as it is). Nothing for any other
// first argument or none.
std::optional<QString> messageTextValue(const OSCMessage& message);

// The value a watched address shows: every argument as text (floats in `locale` with 0 to 2
// fraction digits, bools as "On" or "Off", blobs and nulls skipped), joined with spaces.
QString watchedValueText(const std::vector<OSCArgument>& arguments, const QLocale& locale);

// Whether `watched` catches messages to `address`: an exact match, or, for a watched address
// ending in "*", any address that begins with the text before it.
bool watchedAddressMatches(const WatchedAddress& watched, QStringView address);

} // namespace orvane
