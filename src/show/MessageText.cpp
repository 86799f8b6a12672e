#include "show/MessageText.h"

#include <QStringList>

#include <charconv>
#include <cmath>

namespace orvane {

namespace {

// The shortest text that reads back as the same 32-bit float, with ".0" on whole numbers.
QString shortestFloatText(float value)
{
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    QString text = QString::fromLatin1(buffer, result.ptr - buffer);
    if (std::isfinite(value) && !text.contains(u'.') && !text.contains(u'e'))
        text += QStringLiteral(".0");
    return text;
}

QString localeFloatText(float value, const QLocale& locale)
{
    QString text = locale.toString(double(value), 'f', 2);
    const QString point = locale.decimalPoint();
    if (!text.contains(point))
        return text;
    const QString zero = locale.zeroDigit();
    while (text.endsWith(zero))
        text.chop(zero.size());
    if (text.endsWith(point))
        text.chop(point.size());
    return text;
}

} // namespace

std::optional<QString> messageTextValue(const OSCMessage& message)
{
    if (message.arguments.empty())
        return std::nullopt;
    const OSCArgument& first = message.arguments.front();
    if (const auto* number = std::get_if<std::int32_t>(&first))
        return QString::number(*number);
    if (const auto* number = std::get_if<float>(&first))
        return shortestFloatText(*number);
    if (const auto* text = std::get_if<std::string>(&first))
        return QString::fromStdString(*text);
    return std::nullopt;
}

QString watchedValueText(const std::vector<OSCArgument>& arguments, const QLocale& locale)
{
    QStringList pieces;
    for (const OSCArgument& argument : arguments) {
        if (const auto* number = std::get_if<std::int32_t>(&argument))
            pieces.append(QString::number(*number));
        else if (const auto* number = std::get_if<float>(&argument))
            pieces.append(localeFloatText(*number, locale));
        else if (const auto* text = std::get_if<std::string>(&argument))
            pieces.append(QString::fromStdString(*text));
        else if (const auto* flag = std::get_if<bool>(&argument))
            pieces.append(*flag ? QStringLiteral("On") : QStringLiteral("Off"));
    }
    return pieces.join(u' ');
}

bool watchedAddressMatches(const WatchedAddress& watched, QStringView address)
{
    const QStringView pattern = watched.address;
    if (pattern.endsWith(u'*'))
        return address.startsWith(pattern.chopped(1));
    return address == pattern;
}

} // namespace orvane
