#pragma once

#include <QJsonValue>
#include <QString>

#include <optional>
#include <vector>

namespace orvane {

// One workspace open in QLab, as the "/workspaces" reply lists it. Any thread.
struct QLabWorkspace {
    QString id;   // "uniqueID"
    QString name; // "displayName", or "Untitled Workspace"

    // The workspaces of a "/workspaces" reply's data; nothing when the data is not an array.
    // Entries without an identity are left out.
    static std::optional<std::vector<QLabWorkspace>> decodeList(const QJsonValue& data);

    friend bool operator==(const QLabWorkspace&, const QLabWorkspace&) = default;
};

} // namespace orvane
