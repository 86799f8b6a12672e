#include "settings/JsonSettingsFormat.h"

#include <QIODevice>
#include <QJsonArray>
#include <QJsonDocument>

#include <cmath>

namespace orvane {

namespace {

// Whole numbers that a double holds exactly: beyond 2^53 a JSON number is read as a double.
constexpr double kLargestExactWhole = 9007199254740992.0;

bool readJsonSettings(QIODevice& device, QSettings::SettingsMap& map)
{
    const auto object = settingsObjectFromText(device.readAll());
    if (!object)
        return false;
    for (auto member = object->begin(); member != object->end(); ++member)
        map.insert(member.key(), settingsValueFromJson(member.value()));
    return true;
}

bool writeJsonSettings(QIODevice& device, const QSettings::SettingsMap& map)
{
    QJsonObject object;
    for (auto entry = map.begin(); entry != map.end(); ++entry)
        object.insert(entry.key(), QJsonValue::fromVariant(entry.value()));
    const QByteArray text = QJsonDocument(object).toJson(QJsonDocument::Indented);
    return device.write(text) == text.size();
}

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

void skipSpace(const QByteArray& text, qsizetype& at)
{
    while (at < text.size() && isSpace(text.at(at)))
        ++at;
}

// The end of the JSON string that opens at `at` (just past its closing quote), or nothing
// when the text ends first.
std::optional<qsizetype> endOfString(const QByteArray& text, qsizetype at)
{
    for (++at; at < text.size(); ++at) {
        if (text.at(at) == '\\')
            ++at;
        else if (text.at(at) == '"')
            return at + 1;
    }
    return std::nullopt;
}

// Where the member value that starts at `at` ends: the "," or closing bracket outside any
// string and nesting, or the end of the text.
qsizetype endOfValue(const QByteArray& text, qsizetype at)
{
    qsizetype depth = 0;
    while (at < text.size()) {
        const char c = text.at(at);
        if (c == '"') {
            const auto end = endOfString(text, at);
            if (!end)
                return text.size();
            at = *end;
            continue;
        }
        if (c == '{' || c == '[') {
            ++depth;
        } else if (c == '}' || c == ']') {
            if (depth == 0)
                return at;
            --depth;
        } else if (c == ',' && depth == 0) {
            return at;
        }
        ++at;
    }
    return at;
}

// One JSON value on its own, parsed by the real parser.
std::optional<QJsonValue> parseValue(const QByteArray& valueText)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson('[' + valueText + ']', &error);
    if (error.error != QJsonParseError::NoError || document.array().size() != 1)
        return std::nullopt;
    return document.array().at(0);
}

} // namespace

QSettings::Format jsonSettingsFormat()
{
    static const QSettings::Format format = QSettings::registerFormat(
        QStringLiteral("json"), &readJsonSettings, &writeJsonSettings, Qt::CaseSensitive);
    return format;
}

QVariant settingsValueFromJson(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool();
    case QJsonValue::Double: {
        const double number = value.toDouble();
        if (std::floor(number) == number && std::fabs(number) <= kLargestExactWhole)
            return qint64(number);
        return number;
    }
    case QJsonValue::String:
        return value.toString();
    case QJsonValue::Null:
    case QJsonValue::Array:
    case QJsonValue::Object:
    case QJsonValue::Undefined:
        return QVariant::fromValue(value);
    }
    return QVariant::fromValue(value);
}

std::optional<QJsonObject> settingsObjectFromText(const QByteArray& text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return document.object();
}

QJsonObject readableMembers(const QByteArray& text)
{
    QJsonObject members;
    qsizetype at = text.indexOf('{');
    if (at < 0)
        return members;
    ++at;
    while (true) {
        skipSpace(text, at);
        if (at >= text.size() || text.at(at) != '"')
            break;
        const auto keyEnd = endOfString(text, at);
        if (!keyEnd)
            break;
        const auto key = parseValue(text.mid(at, *keyEnd - at));
        at = *keyEnd;
        skipSpace(text, at);
        if (!key || at >= text.size() || text.at(at) != ':')
            break;
        ++at;
        // A value that runs to the end of the text may have been cut short ("9000" read as
        // "900"): only a value followed by "," or "}" is taken.
        const qsizetype valueEnd = endOfValue(text, at);
        if (valueEnd >= text.size())
            break;
        if (const auto value = parseValue(text.mid(at, valueEnd - at)))
            members.insert(key->toString(), *value);
        at = valueEnd;
        if (text.at(at) != ',')
            break;
        ++at;
    }
    return members;
}

} // namespace orvane
