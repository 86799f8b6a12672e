#include "outputs/LocalNetwork.h"

#include <QHostInfo>
#include <QNetworkInterface>

namespace orvane {

namespace {

bool inRange(const QHostAddress& address, const char* network, int prefixLength)
{
    return address.isInSubnet(QHostAddress(QString::fromLatin1(network)), prefixLength);
}

bool isLocalIPv4(const QHostAddress& address)
{
    return inRange(address, "10.0.0.0", 8) || inRange(address, "127.0.0.0", 8) ||
           inRange(address, "169.254.0.0", 16) || inRange(address, "172.16.0.0", 12) ||
           inRange(address, "192.168.0.0", 16);
}

bool onOwnSubnet(const QHostAddress& peer, const QList<InterfaceAddress>& own)
{
    for (const auto& entry : own) {
        if (!entry.isUp || entry.prefixLength < 0 || entry.address.protocol() != peer.protocol())
            continue;
        if (peer.isInSubnet(entry.address, entry.prefixLength))
            return true;
    }
    return false;
}

} // namespace

QList<InterfaceAddress> interfaceAddresses()
{
    QList<InterfaceAddress> addresses;
    const auto interfaces = QNetworkInterface::allInterfaces();
    for (const auto& interface : interfaces) {
        const auto flags = interface.flags();
        for (const auto& entry : interface.addressEntries()) {
            addresses.append({entry.ip(), entry.netmask().isNull() ? -1 : entry.prefixLength(),
                              flags.testFlag(QNetworkInterface::IsUp),
                              flags.testFlag(QNetworkInterface::IsLoopBack)});
        }
    }
    return addresses;
}

bool isLocalNetworkPeer(const QHostAddress& peer, const QList<InterfaceAddress>& own)
{
    bool isIPv4 = false;
    const quint32 ipv4 = peer.toIPv4Address(&isIPv4); // also unwraps ::ffff:a.b.c.d
    if (isIPv4) {
        const QHostAddress address(ipv4);
        return isLocalIPv4(address) || onOwnSubnet(address, own);
    }
    if (peer.protocol() != QAbstractSocket::IPv6Protocol)
        return false;
    return peer.isLoopback() || peer.isLinkLocal() || peer.isUniqueLocalUnicast() ||
           onOwnSubnet(peer, own);
}

QStringList webAddressesFor(const QList<InterfaceAddress>& own,
                            const std::optional<QString>& hostName, int port)
{
    QStringList addresses;
    for (const auto& entry : own) {
        if (!entry.isUp || entry.isLoopback || entry.prefixLength < 0 ||
            entry.address.protocol() != QAbstractSocket::IPv4Protocol ||
            inRange(entry.address, "169.254.0.0", 16))
            continue;
        addresses.append(QStringLiteral("http://%1:%2").arg(entry.address.toString()).arg(port));
    }
    if (hostName && !hostName->isEmpty())
        addresses.append(QStringLiteral("http://%1.local:%2").arg(*hostName).arg(port));
    return addresses;
}

std::optional<QString> localHostName()
{
    QString name = QHostInfo::localHostName();
    if (name.endsWith(QLatin1String(".local")))
        name.chop(6);
    // A fully qualified name keeps only its first label, as multicast DNS announces it.
    name = name.section(QLatin1Char('.'), 0, 0);
    if (name.isEmpty() || name == QLatin1String("localhost"))
        return std::nullopt;
    return name;
}

} // namespace orvane
