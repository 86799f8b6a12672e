#include "eos/NetworkSockets.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <set>

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orvane::sockets {

namespace {

bool isLinkLocal(std::uint32_t address)
{
    return (address & 0xFFFF0000u) == 0xA9FE0000u; // 169.254.0.0/16
}

} // namespace

sockaddr_in socketAddress(std::uint32_t address, std::uint16_t port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}

std::vector<ScanTarget> scanTargets()
{
    std::vector<ScanTarget> targets;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return targets;
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET || !entry->ifa_netmask)
            continue;
        if (!(entry->ifa_flags & IFF_UP) || (entry->ifa_flags & IFF_LOOPBACK))
            continue;
        ScanTarget target;
        target.address = ntohl(reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr.s_addr);
        target.netmask =
            ntohl(reinterpret_cast<const sockaddr_in*>(entry->ifa_netmask)->sin_addr.s_addr);
        if (isLinkLocal(target.address))
            continue;
        target.name = QString::fromLocal8Bit(entry->ifa_name);
        target.index = int(::if_nametoindex(entry->ifa_name));
        target.network = networkKindOfInterface(target.name);
        targets.push_back(target);
    }
    ::freeifaddrs(list);
    return targets;
}

bool bindToInterface(int fd, const ScanTarget& target)
{
    const QByteArray name = target.name.toLocal8Bit();
    if (::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.constData(),
                     socklen_t(name.size())) == 0) {
        return true;
    }
    // Without the right to pick a device, the interface's own address keeps replies on it.
    const sockaddr_in local = socketAddress(target.address, 0);
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

int startTcpConnect(std::uint32_t host, std::uint16_t port, const ScanTarget& via)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!bindToInterface(fd, via)) {
        ::close(fd);
        return -1;
    }
    const sockaddr_in remote = socketAddress(host, port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&remote), sizeof remote) != 0 &&
        errno != EINPROGRESS) {
        ::close(fd);
        return -1;
    }
    return fd;
}

int pendingError(int fd)
{
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
        return errno;
    return error;
}

} // namespace orvane::sockets
