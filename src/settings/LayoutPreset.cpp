#include "settings/LayoutPreset.h"

#include "settings/JsonFields.h"

#include <QCollator>
#include <QJsonArray>
#include <QLocale>

namespace orvane {

QJsonObject LayoutPreset::toJson() const
{
    return QJsonObject{{"id", json::uuidText(id)}, {"name", name}, {"look", look.toJson()}};
}

std::optional<LayoutPreset> LayoutPreset::fromJson(const QJsonValue& json)
{
    if (!json.isObject())
        return std::nullopt;
    const QJsonObject object = json.toObject();
    const auto id = json::uuid(object, "id");
    const auto name = json::string(object, "name");
    const auto look = OverlayLook::fromJson(object.value(QStringLiteral("look")));
    if (!id || !name || !look)
        return std::nullopt;
    return LayoutPreset{*id, *name, *look};
}

std::optional<qsizetype> indexOfLayoutPreset(const QList<LayoutPreset>& presets, QStringView name)
{
    const QStringView wanted = name.trimmed();
    if (wanted.isEmpty())
        return std::nullopt;
    QCollator collator(QLocale::system());
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    for (qsizetype at = 0; at < presets.size(); ++at) {
        if (collator.compare(presets.at(at).name, wanted) == 0)
            return at;
    }
    return std::nullopt;
}

std::optional<qsizetype> indexOfActiveLayoutPreset(const QList<LayoutPreset>& presets,
                                                   const OverlayLook& look)
{
    for (qsizetype at = 0; at < presets.size(); ++at) {
        if (presets.at(at).look == look)
            return at;
    }
    return std::nullopt;
}

QJsonArray layoutPresetsToJson(const QList<LayoutPreset>& presets)
{
    QJsonArray array;
    for (const LayoutPreset& preset : presets)
        array.append(preset.toJson());
    return array;
}

std::optional<QList<LayoutPreset>> layoutPresetsFromJson(const QJsonValue& json)
{
    if (!json.isArray())
        return std::nullopt;
    QList<LayoutPreset> presets;
    for (const QJsonValue& entry : json.toArray()) {
        auto preset = LayoutPreset::fromJson(entry);
        if (!preset)
            return std::nullopt;
        presets.append(std::move(*preset));
    }
    return presets;
}

} // namespace orvane
