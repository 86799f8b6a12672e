#pragma once

#include "settings/OverlayLook.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringView>
#include <QUuid>

#include <optional>

namespace orvane {

// A named, saved look, so that the operator can switch between arrangements (rehearsal,
// archive, web stream) from the menu or by the layout command. A plain value.
struct LayoutPreset {
    QUuid id;
    QString name;
    OverlayLook look;

    // {"id": UUID text, "name": …, "look": {…}}; every key is required on decoding.
    QJsonObject toJson() const;
    static std::optional<LayoutPreset> fromJson(const QJsonValue& json);

    friend bool operator==(const LayoutPreset&, const LayoutPreset&) = default;
};

// The first preset, in list order, whose name equals `name` trimmed of surrounding white
// space, compared case-insensitively in the user's locale. A name of blanks matches nothing.
std::optional<qsizetype> indexOfLayoutPreset(const QList<LayoutPreset>& presets, QStringView name);

// The first preset, in list order, whose look equals `look`: the one shown as active.
std::optional<qsizetype> indexOfActiveLayoutPreset(const QList<LayoutPreset>& presets,
                                                   const OverlayLook& look);

// The presets as a JSON array; decoding fails as a whole when one preset is bad.
QJsonArray layoutPresetsToJson(const QList<LayoutPreset>& presets);
std::optional<QList<LayoutPreset>> layoutPresetsFromJson(const QJsonValue& json);

} // namespace orvane
