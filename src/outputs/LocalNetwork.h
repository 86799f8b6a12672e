#pragma once

#include <QHostAddress>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace orvane {

// One IPv4 or IPv6 address of this computer's network interfaces, as the web viewer sees it.
struct InterfaceAddress {
    QHostAddress address;
    int prefixLength = -1; // -1 when the interface gives no netmask
    bool isUp = false;
    bool isLoopback = false;
    friend bool operator==(const InterfaceAddress&, const InterfaceAddress&) = default;
};

// The addresses of every interface of this computer, in the system's order. Any thread.
QList<InterfaceAddress> interfaceAddresses();

// Whether a viewer at `peer` is on the local network and may watch: private, loopback and
// link-local IPv4 ranges at once; any other IPv4 address when it lies on one of this
// computer's own subnets; IPv6 loopback, link-local (fe80::/10) and unique-local (fc00::/7),
// or an address on one of this computer's own IPv6 subnets. Pure.
bool isLocalNetworkPeer(const QHostAddress& peer, const QList<InterfaceAddress>& own);

// The addresses to type into a browser to reach a server on `port`: "http://a.b.c.d:port" for
// every IPv4 address with a netmask on an interface that is up, not loopback and not
// link-local, in interface order, then "http://NAME.local:port" for the host name when there
// is one. Pure.
QStringList webAddressesFor(const QList<InterfaceAddress>& own,
                            const std::optional<QString>& localHostName, int port);

// This computer's local host name without ".local" (from the system's host name), if any.
std::optional<QString> localHostName();

} // namespace orvane
