#include "qlab/QLabMessage.h"

#include <QStringList>

namespace orvane {

namespace {

// The JSON text of a reply: its first argument, which must be a string.
const std::string* replyText(const OSCMessage& message)
{
    if (message.arguments.empty())
        return nullptr;
    return std::get_if<std::string>(&message.arguments.front());
}

std::optional<QLabMessage> classifyUpdate(QStringView rest)
{
    const QStringList parts = rest.toString().split(u'/');
    QLabMessage message;
    message.workspaceID = parts.value(0);
    if (message.workspaceID.isEmpty())
        return std::nullopt;
    if (parts.size() == 1) {
        message.kind = QLabMessage::Kind::workspaceUpdated;
        return message;
    }
    if (parts.size() == 2 && parts[1] == u"disconnect") {
        message.kind = QLabMessage::Kind::disconnect;
        return message;
    }
    if (parts.size() == 3 && parts[1] == u"cue_id" && !parts[2].isEmpty()) {
        message.kind = QLabMessage::Kind::cueUpdated;
        message.cueID = parts[2];
        return message;
    }
    if (parts.size() == 4 && parts[1] == u"cueList" && parts[3] == u"playbackPosition") {
        message.kind = QLabMessage::Kind::playbackPositionChanged;
        return message;
    }
    return std::nullopt;
}

} // namespace

std::optional<QLabMessage> QLabMessage::classify(const OSCMessage& osc)
{
    const QString address = QString::fromStdString(osc.address);
    if (address.startsWith(u"/reply/")) {
        const std::string* json = replyText(osc);
        if (!json)
            return std::nullopt;
        auto reply = QLabReply::decode(QByteArrayView(json->data(), qsizetype(json->size())));
        if (!reply)
            return std::nullopt;
        QLabMessage message;
        message.kind = Kind::reply;
        message.workspaceID = reply->workspaceID.value_or(QString());
        message.reply = std::move(*reply);
        return message;
    }
    if (address == u"/qlab/event/workspace/cue/start" || address == u"/qlab/event/workspace/cue/stop") {
        QLabMessage message;
        message.kind = address.endsWith(u"start") ? Kind::cueStarted : Kind::cueStopped;
        return message;
    }
    const QStringView updatePrefix = u"/update/workspace/";
    if (address.startsWith(updatePrefix))
        return classifyUpdate(QStringView(address).mid(updatePrefix.size()));
    return std::nullopt;
}

} // namespace orvane
