#include "show/MessageText.h"

#include "osc/OSCMessageText.h"

#include <QStringList>

namespace orvane {

namespace {

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
    return oscArgumentText(message, 0);
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
