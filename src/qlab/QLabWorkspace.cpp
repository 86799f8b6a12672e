#include "qlab/QLabWorkspace.h"

#include "qlab/QLabJson.h"

#include <QJsonArray>
#include <QJsonObject>

namespace orvane {

std::optional<std::vector<QLabWorkspace>> QLabWorkspace::decodeList(const QJsonValue& data)
{
    if (!data.isArray())
        return std::nullopt;
    std::vector<QLabWorkspace> workspaces;
    for (const QJsonValue& entry : data.toArray()) {
        const QJsonObject object = entry.toObject();
        const auto id = qlabjson::text(object.value(u"uniqueID"));
        if (!id || id->isEmpty())
            continue;
        const QString name = qlabjson::text(object.value(u"displayName")).value_or(QString());
        workspaces.push_back({*id, name.isEmpty() ? QStringLiteral("Untitled Workspace") : name});
    }
    return workspaces;
}

} // namespace orvane
