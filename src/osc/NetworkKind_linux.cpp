#include "osc/NetworkKind.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace orvane {

NetworkKind networkKindOfInterface(const QString& name, const QString& sysClassNet)
{
    const QDir folder(sysClassNet + QLatin1Char('/') + name);
    if (QFileInfo::exists(folder.filePath(QStringLiteral("wireless"))) ||
        QFileInfo::exists(folder.filePath(QStringLiteral("phy80211"))))
        return NetworkKind::wifi;
    QFile type(folder.filePath(QStringLiteral("type")));
    // ARPHRD_ETHER is 1; virtual interfaces (veth, bridges, tunnels) have no device link.
    const bool isEthernet =
        type.open(QIODevice::ReadOnly) && type.readAll().trimmed() == QByteArrayLiteral("1");
    if (isEthernet && QFileInfo::exists(folder.filePath(QStringLiteral("device"))))
        return NetworkKind::wired;
    return NetworkKind::other;
}

} // namespace orvane
