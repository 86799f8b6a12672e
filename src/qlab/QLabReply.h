#pragma once

#include <QByteArrayView>
#include <QJsonValue>
#include <QString>

#include <optional>

namespace orvane {

// QLab's answer to one request: the JSON text carried by a "/reply/…" message. Any thread.
struct QLabReply {
    // The request address this reply answers ("/workspaces", "/workspace/ID/connect"...).
    QString address;
    std::optional<QString> workspaceID;
    QString status;
    // The "data" value as QLab sent it; undefined when absent.
    QJsonValue data = QJsonValue(QJsonValue::Undefined);

    // The envelope in `json`, or nothing when it is not an object with "address" and "status".
    static std::optional<QLabReply> decode(QByteArrayView json);

    friend bool operator==(const QLabReply&, const QLabReply&) = default;
};

} // namespace orvane
