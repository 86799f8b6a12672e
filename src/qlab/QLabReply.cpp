#include "qlab/QLabReply.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace orvane {

std::optional<QLabReply> QLabReply::decode(QByteArrayView json)
{
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson(json.toByteArray(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const QJsonObject object = document.object();
    const QJsonValue address = object.value(u"address");
    const QJsonValue status = object.value(u"status");
    if (!address.isString() || !status.isString())
        return std::nullopt;
    QLabReply reply;
    reply.address = address.toString();
    reply.status = status.toString();
    const QJsonValue workspace = object.value(u"workspace_id");
    if (workspace.isString())
        reply.workspaceID = workspace.toString();
    reply.data = object.value(u"data");
    return reply;
}

} // namespace orvane
