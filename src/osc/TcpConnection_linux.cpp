#include "osc/TcpConnection.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QLoggingCategory>
#include <QSocketNotifier>
#include <QTimer>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orvane {

namespace {

Q_LOGGING_CATEGORY(lcTcp, "orvane.osc")

constexpr int kReadBytes = 65'536;
constexpr int kKeepAliveIdleSeconds = 5;
constexpr int kKeepAliveIntervalSeconds = 2;
constexpr int kKeepAliveProbes = 3;

QString systemText(int errorNumber)
{
    return QString::fromLocal8Bit(std::strerror(errorNumber));
}

// `address` as a socket address; the length is 0 for an address of no known family.
socklen_t toSocketAddress(const QHostAddress& address, quint16 port, sockaddr_storage& out)
{
    std::memset(&out, 0, sizeof out);
    bool isIPv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIPv4);
    if (isIPv4) {
        auto* in = reinterpret_cast<sockaddr_in*>(&out);
        in->sin_family = AF_INET;
        in->sin_port = htons(port);
        in->sin_addr.s_addr = htonl(ipv4);
        return sizeof(sockaddr_in);
    }
    if (address.protocol() != QAbstractSocket::IPv6Protocol)
        return 0;
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&out);
    in6->sin6_family = AF_INET6;
    in6->sin6_port = htons(port);
    const Q_IPV6ADDR bytes = address.toIPv6Address();
    std::memcpy(&in6->sin6_addr, bytes.c, sizeof bytes.c);
    // A link-local scope may be an interface name ("eth0") or its index.
    const QString scope = address.scopeId();
    bool isIndex = false;
    in6->sin6_scope_id = scope.toUInt(&isIndex);
    if (!scope.isEmpty() && !isIndex)
        in6->sin6_scope_id = ::if_nametoindex(scope.toLocal8Bit().constData());
    return sizeof(sockaddr_in6);
}

bool setOption(int fd, int level, int name, int value)
{
    return ::setsockopt(fd, level, name, &value, sizeof value) == 0;
}

// The local address the kernel would use to reach `address`, found with an unsent UDP socket.
std::optional<QHostAddress> routeSource(const QHostAddress& address)
{
    sockaddr_storage to;
    const socklen_t length = toSocketAddress(address, 9, to);
    if (length == 0)
        return std::nullopt;
    const int fd = ::socket(to.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return std::nullopt;
    std::optional<QHostAddress> source;
    sockaddr_storage local;
    socklen_t localLength = sizeof local;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&to), length) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) == 0)
        source = QHostAddress(reinterpret_cast<sockaddr*>(&local));
    ::close(fd);
    return source;
}

std::optional<QString> interfaceWithAddress(const QHostAddress& address)
{
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return std::nullopt;
    std::optional<QString> name;
    for (ifaddrs* entry = list; entry && !name; entry = entry->ifa_next) {
        if (!entry->ifa_addr)
            continue;
        const int family = entry->ifa_addr->sa_family;
        if (family != AF_INET && family != AF_INET6)
            continue;
        if (QHostAddress(entry->ifa_addr).isEqual(address, QHostAddress::TolerantConversion))
            name = QString::fromLocal8Bit(entry->ifa_name);
    }
    ::freeifaddrs(list);
    return name;
}

// The first address of `family` on the interface `name`.
std::optional<QHostAddress> addressOfInterface(const QString& name, int family)
{
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return std::nullopt;
    std::optional<QHostAddress> address;
    const QByteArray wanted = name.toLocal8Bit();
    for (ifaddrs* entry = list; entry && !address; entry = entry->ifa_next) {
        if (entry->ifa_addr && entry->ifa_addr->sa_family == family && wanted == entry->ifa_name)
            address = QHostAddress(entry->ifa_addr);
    }
    ::freeifaddrs(list);
    return address;
}

int systemBindToDevice(int fd, const QByteArray& name)
{
    return ::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.constData(), socklen_t(name.size()));
}

BindToDevice bindToDevice = systemBindToDevice;

// Keeps the connection on the interface `name`: bound to the device, or, where the kernel
// refuses that (no CAP_NET_RAW), bound to the interface's own address, which makes the route
// leave through it. 0, or the error number.
int bindToInterface(int fd, const QString& name, int family)
{
    if (bindToDevice(fd, name.toLocal8Bit()) == 0)
        return 0;
    const int refused = errno;
    const auto address = addressOfInterface(name, family);
    if (!address)
        return refused;
    sockaddr_storage local;
    const socklen_t length = toSocketAddress(*address, 0, local);
    if (length == 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&local), length) != 0)
        return length == 0 ? refused : errno;
    qCDebug(lcTcp) << "osc: bound to the address of" << name << "as binding to the device was"
                   << "refused:" << systemText(refused);
    return 0;
}

bool isUp(const QString& name)
{
    QFile flags(QStringLiteral("/sys/class/net/%1/flags").arg(name));
    if (!flags.open(QIODevice::ReadOnly))
        return false;
    bool ok = false;
    const uint value = flags.readAll().trimmed().toUInt(&ok, 16);
    return ok && (value & IFF_UP);
}

} // namespace

OSCStream::Failure failureForSystemError(int errorNumber)
{
    using Kind = OSCStream::Failure::Kind;
    switch (errorNumber) {
    case ECONNREFUSED:
        return {Kind::refused, {}};
    case ETIMEDOUT:
        return {Kind::noAnswer, {}};
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTDOWN:
    case EHOSTUNREACH:
        return {Kind::unreachable, {}};
    case EPIPE:
    case ECONNRESET:
        return {Kind::closedByPeer, {}};
    }
    return {Kind::other, systemText(errorNumber)};
}

void setBindToDeviceForTesting(BindToDevice bind)
{
    bindToDevice = bind ? bind : systemBindToDevice;
}

std::optional<QString> interfaceForConnection(const QHostAddress& address, NetworkKind kind)
{
    if (const auto source = routeSource(address)) {
        if (const auto name = interfaceWithAddress(*source)) {
            if (networkKindOfInterface(*name) == kind)
                return name;
        }
    }
    const QStringList names = QDir(QStringLiteral("/sys/class/net"))
                                  .entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString& name : names) {
        if (networkKindOfInterface(name) == kind && isUp(name))
            return name;
    }
    return std::nullopt;
}

TcpConnection::TcpConnection(Handlers handlers, QObject* parent)
    : QObject(parent)
    , handlers_(std::move(handlers))
{
}

TcpConnection::~TcpConnection()
{
    close();
}

void TcpConnection::start(const QString& host, quint16 port,
                          std::optional<NetworkKind> interfaceKind)
{
    port_ = port;
    interfaceKind_ = interfaceKind;
    QHostAddress literal;
    if (literal.setAddress(host)) {
        addresses_ = {literal};
        connectToNextAddress();
        return;
    }
    lookupId_ = QHostInfo::lookupHost(host, this, &TcpConnection::hostFound);
}

void TcpConnection::hostFound(const QHostInfo& info)
{
    lookupId_ = -1;
    if (isClosed_)
        return;
    addresses_ = info.addresses();
    if (info.error() != QHostInfo::NoError || addresses_.isEmpty()) {
        qCDebug(lcTcp) << "osc: no address for" << info.hostName() << info.errorString();
        reportFailure({OSCStream::Failure::Kind::unknownHost, {}});
        return;
    }
    connectToNextAddress();
}

void TcpConnection::connectToNextAddress()
{
    closeSocket();
    if (addresses_.isEmpty()) {
        reportFailure(failureForSystemError(lastError_ ? lastError_ : EHOSTUNREACH));
        return;
    }
    const QHostAddress address = addresses_.takeFirst();
    sockaddr_storage to;
    const socklen_t length = toSocketAddress(address, port_, to);
    if (length == 0) {
        lastError_ = EAFNOSUPPORT;
        connectToNextAddress();
        return;
    }
    std::optional<QString> device;
    if (interfaceKind_) {
        device = interfaceForConnection(address, *interfaceKind_);
        if (!device) {
            qCInfo(lcTcp) << "osc: no" << rawValue(*interfaceKind_) << "interface to reach"
                          << address.toString();
            lastError_ = ENETUNREACH;
            connectToNextAddress();
            return;
        }
    }
    fd_ = ::socket(to.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        lastError_ = errno;
        connectToNextAddress();
        return;
    }
    // Options that fail to apply leave a working connection behind, so they are only logged.
    const bool optionsSet = setOption(fd_, IPPROTO_TCP, TCP_NODELAY, 1) &&
                            setOption(fd_, SOL_SOCKET, SO_KEEPALIVE, 1) &&
                            setOption(fd_, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds) &&
                            setOption(fd_, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveIntervalSeconds) &&
                            setOption(fd_, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
    if (!optionsSet)
        qCWarning(lcTcp) << "osc: TCP options not set:" << systemText(errno);
    if (device) {
        if (const int error = bindToInterface(fd_, *device, to.ss_family); error != 0) {
            lastError_ = error;
            connectToNextAddress();
            return;
        }
    }
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&to), length) == 0) {
        connectFinished();
        return;
    }
    if (errno != EINPROGRESS) {
        lastError_ = errno;
        connectToNextAddress();
        return;
    }
    writeNotifier_ = new QSocketNotifier(fd_, QSocketNotifier::Write, this);
    connect(writeNotifier_, &QSocketNotifier::activated, this, &TcpConnection::connectFinished);
}

void TcpConnection::connectFinished()
{
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        error = errno;
    if (error != 0) {
        lastError_ = error;
        connectToNextAddress();
        return;
    }
    isConnected_ = true;
    addresses_.clear();
    if (writeNotifier_) {
        writeNotifier_->setEnabled(false);
        writeNotifier_->disconnect(this);
        connect(writeNotifier_, &QSocketNotifier::activated, this, &TcpConnection::flush);
    } else {
        writeNotifier_ = new QSocketNotifier(fd_, QSocketNotifier::Write, this);
        writeNotifier_->setEnabled(false);
        connect(writeNotifier_, &QSocketNotifier::activated, this, &TcpConnection::flush);
    }
    readNotifier_ = new QSocketNotifier(fd_, QSocketNotifier::Read, this);
    connect(readNotifier_, &QSocketNotifier::activated, this, &TcpConnection::readAvailable);
    if (handlers_.connected)
        handlers_.connected();
}

void TcpConnection::readAvailable()
{
    if (isLingering_) {
        drain();
        return;
    }
    // One read per wake-up: a flooding peer cannot starve the event loop.
    static thread_local QByteArray buffer(kReadBytes, Qt::Uninitialized);
    const ssize_t count = ::recv(fd_, buffer.data(), kReadBytes, 0);
    if (count > 0) {
        handlers_.received(QByteArrayView(buffer.constData(), qsizetype(count)));
        return;
    }
    if (count == 0) {
        reportFailure({OSCStream::Failure::Kind::closedByPeer, {}});
        return;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
        return;
    reportFailure(failureForSystemError(errno));
}

bool TcpConnection::write(QByteArrayView bytes)
{
    if (!isConnected_ || isClosed_)
        return false;
    pending_.append(bytes);
    flush();
    return true;
}

void TcpConnection::flush()
{
    while (!pending_.isEmpty()) {
        const ssize_t count =
            ::send(fd_, pending_.constData(), size_t(pending_.size()), MSG_NOSIGNAL);
        if (count < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                break;
            // A broken connection: the read side reports it, with its reason.
            qCDebug(lcTcp) << "osc: send failed:" << systemText(errno);
            pending_.clear();
            break;
        }
        pending_.remove(0, qsizetype(count));
    }
    writeNotifier_->setEnabled(!pending_.isEmpty());
    if (isLingering_ && pending_.isEmpty() && !isWriteShutDown_) {
        // Everything is with the kernel: it sends it, then our FIN.
        isWriteShutDown_ = true;
        ::shutdown(fd_, SHUT_WR);
    }
}

void TcpConnection::closeGracefully()
{
    if (!isConnected_ || isClosed_) {
        close();
        deleteLater();
        return;
    }
    isClosed_ = true;
    isLingering_ = true;
    QTimer::singleShot(kLingerTimeoutMs, this, &TcpConnection::finishGracefulClose);
    flush();
}

// Reads and drops what the peer still sends, until it closes its side.
void TcpConnection::drain()
{
    static thread_local QByteArray buffer(kReadBytes, Qt::Uninitialized);
    const ssize_t count = ::recv(fd_, buffer.data(), kReadBytes, 0);
    if (count > 0)
        return;
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return;
    finishGracefulClose();
}

void TcpConnection::finishGracefulClose()
{
    if (!isLingering_)
        return;
    isLingering_ = false;
    closeSocket();
    deleteLater();
}

void TcpConnection::close()
{
    isClosed_ = true;
    isLingering_ = false;
    if (lookupId_ >= 0) {
        QHostInfo::abortHostLookup(lookupId_);
        lookupId_ = -1;
    }
    closeSocket();
}

void TcpConnection::closeSocket()
{
    // The notifiers may be the ones whose signal is running now.
    for (QSocketNotifier** notifier : {&readNotifier_, &writeNotifier_}) {
        if (!*notifier)
            continue;
        (*notifier)->setEnabled(false);
        (*notifier)->disconnect(this);
        (*notifier)->deleteLater();
        *notifier = nullptr;
    }
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    isConnected_ = false;
    pending_.clear();
}

void TcpConnection::reportFailure(const OSCStream::Failure& failure)
{
    closeSocket();
    if (isClosed_)
        return;
    isClosed_ = true;
    handlers_.failed(failure);
}

} // namespace orvane
