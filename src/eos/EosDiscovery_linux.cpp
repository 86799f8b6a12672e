#include "eos/EosDiscovery.h"

#include "eos/NetworkSockets.h"

#include <QHostAddress>

#include <chrono>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orvane {

namespace {

constexpr Seconds kResendInterval{0.5};
constexpr Seconds kReceiveWait{0.2};

// A UDP socket that broadcasts by `target`'s interface only and has a port of its own; -1
// when it cannot be made.
int openDiscoverySocket(const ScanTarget& target, std::uint16_t& localPort)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const int on = 1;
    const auto wait = std::chrono::duration_cast<std::chrono::microseconds>(kReceiveWait);
    const timeval timeout{0, suseconds_t(wait.count())};
    sockaddr_in local{};
    socklen_t size = sizeof local;
    bool ok = ::setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == 0 &&
              ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == 0 &&
              sockets::bindToInterface(fd, target) &&
              ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) == 0;
    if (ok && local.sin_port == 0) {
        // Tied to the device rather than to its address: any address, a port of our own.
        const sockaddr_in any = sockets::socketAddress(INADDR_ANY, 0);
        ok = ::bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0 &&
             ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) == 0;
    }
    if (!ok) {
        ::close(fd);
        return -1;
    }
    localPort = ntohs(local.sin_port);
    return fd;
}

} // namespace

std::vector<ScanTarget> EosDiscovery::currentInterfaces()
{
    return sockets::scanTargets();
}

std::vector<DiscoveredConsole> EosDiscovery::discover(const ScanTarget& target, Seconds duration,
                                                      const std::function<bool()>& isCancelled,
                                                      std::uint16_t port)
{
    std::vector<DiscoveredConsole> consoles;
    std::uint16_t localPort = 0;
    const int fd = openDiscoverySocket(target, localPort);
    if (fd < 0)
        return consoles;

    const QByteArray request = encodeOSC(
        OSCMessage{"/etc/discovery/request", {std::int32_t(localPort), std::string("Orvane")}});
    const sockaddr_in destinations[] = {sockets::socketAddress(target.broadcastAddress(), port),
                                        sockets::socketAddress(INADDR_BROADCAST, port)};
    using SteadyClock = std::chrono::steady_clock;
    const auto start = SteadyClock::now();
    const auto end = start + std::chrono::duration_cast<SteadyClock::duration>(duration);
    std::optional<SteadyClock::time_point> lastSend;
    char buffer[2048];
    while (SteadyClock::now() < end && !(isCancelled && isCancelled())) {
        const auto now = SteadyClock::now();
        if (!lastSend || now - *lastSend >= kResendInterval) {
            for (const sockaddr_in& to : destinations) {
                ::sendto(fd, request.constData(), std::size_t(request.size()), 0,
                         reinterpret_cast<const sockaddr*>(&to), sizeof to);
            }
            lastSend = now;
        }
        sockaddr_in from{};
        socklen_t fromSize = sizeof from;
        const ssize_t got = ::recvfrom(fd, buffer, sizeof buffer, 0,
                                       reinterpret_cast<sockaddr*>(&from), &fromSize);
        if (got <= 0)
            continue; // the 0.2 s wait ran out, or a stray error: keep asking until the end
        const QString host = QHostAddress(ntohl(from.sin_addr.s_addr)).toString();
        for (const OSCMessage& message : decodeOSCPacket(QByteArrayView(buffer, got))) {
            auto console = consoleFromReply(message, host, target);
            if (!console)
                continue;
            const bool known = std::any_of(consoles.begin(), consoles.end(),
                                           [&](const auto& c) { return c.host == host; });
            if (!known)
                consoles.push_back(std::move(*console));
        }
    }
    ::close(fd);
    return consoles;
}

} // namespace orvane
