#pragma once

#include "eos/ScanTarget.h"

#include <QString>

#include <netinet/in.h>

#include <cstdint>
#include <vector>

// Thin wrappers over the system's sockets for what Qt's classes cannot do: broadcasts and TCP
// probes that must leave by one interface. Any thread.
namespace orvane::sockets {

// An IPv4 socket address from an address and a port in host order.
sockaddr_in socketAddress(std::uint32_t address, std::uint16_t port);

// The machine's IPv4 interfaces that scans cover: up, not loopback, not link-local.
std::vector<ScanTarget> scanTargets();

// Ties `fd` to `target`'s interface so its traffic leaves by that interface only; where the
// system refuses, binds it to the interface's address instead. Returns false when neither works.
bool bindToInterface(int fd, const ScanTarget& target);

// A non-blocking TCP socket tied to `via`'s interface, with a connect to host:port started.
// Returns -1 when it cannot be made or the connect failed at once.
int startTcpConnect(std::uint32_t host, std::uint16_t port, const ScanTarget& via);

// The socket's pending error (0 when the connect succeeded).
int pendingError(int fd);

} // namespace orvane::sockets
