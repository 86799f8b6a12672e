#include "qlab/QLabJson.h"

#include <QLocale>

#include <cmath>

namespace orvane::qlabjson {

std::optional<double> number(const QJsonValue& value)
{
    double parsed = 0;
    if (value.isDouble()) {
        parsed = value.toDouble();
    } else if (value.isString()) {
        // The text conversion also takes "nan" and "inf", which no cue time can be.
        bool ok = false;
        parsed = value.toString().trimmed().toDouble(&ok);
        if (!ok)
            return std::nullopt;
    } else {
        return std::nullopt;
    }
    if (!std::isfinite(parsed))
        return std::nullopt;
    return parsed;
}

std::optional<std::int64_t> wholeNumber(const QJsonValue& value)
{
    const auto parsed = number(value);
    if (!parsed || !std::isfinite(*parsed))
        return std::nullopt;
    const double truncated = std::trunc(*parsed);
    // 2^63 is exactly representable; every double below it converts without overflow.
    constexpr double limit = 9223372036854775808.0;
    if (truncated >= limit || truncated < -limit)
        return std::nullopt;
    return static_cast<std::int64_t>(truncated);
}

std::optional<bool> boolean(const QJsonValue& value)
{
    if (value.isBool())
        return value.toBool();
    if (!value.isString())
        return std::nullopt;
    const QString word = value.toString().trimmed().toLower();
    if (word == u"true" || word == u"yes" || word == u"1")
        return true;
    if (word == u"false" || word == u"no" || word == u"0")
        return false;
    return std::nullopt;
}

std::optional<QString> text(const QJsonValue& value)
{
    if (value.isString())
        return value.toString();
    if (value.isDouble())
        return QString::number(value.toDouble(), 'g', QLocale::FloatingPointShortest);
    return std::nullopt;
}

} // namespace orvane::qlabjson
