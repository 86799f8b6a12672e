#include "outputs/WebServer.h"

#include "outputs/LocalNetwork.h"
#include "outputs/WebRequest.h"

#include <QLoggingCategory>
#include <QSocketNotifier>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orvane {

namespace {

Q_LOGGING_CATEGORY(logWeb, "orvane.outputs.web")

// A browser that has its answer is given this long to hang up before it is closed.
constexpr double kClosingSeconds = 2;
// The kernel's send buffer per viewer: a viewer that stops reading stalls after this much.
constexpr int kSendBufferBytes = 512 * 1024;
// Connections accepted per wake-up, so a flood cannot starve the viewers.
constexpr int kAcceptsPerWake = 64;

QString failureText(int port, int error)
{
    if (error == EADDRINUSE)
        return QStringLiteral("Port %1 is in use by another app. Choose a different port.")
            .arg(port);
    return QStringLiteral("Orvane couldn't use port %1: %2.")
        .arg(port)
        .arg(QString::fromLocal8Bit(std::strerror(error)));
}

QHostAddress addressOf(const sockaddr_storage& storage)
{
    QHostAddress address;
    address.setAddress(reinterpret_cast<const sockaddr*>(&storage));
    bool isIPv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIPv4); // unwraps ::ffff:a.b.c.d
    return isIPv4 ? QHostAddress(ipv4) : address;
}

// A non-blocking listening socket on every interface (IPv6 with IPv4 mapped, or IPv4 alone
// where IPv6 is off), or -1 with errno set.
int openListener(int port)
{
    int fd = ::socket(AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        const int off = 0;
        const int on = 1;
        ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_any;
        address.sin6_port = htons(quint16(port));
        if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            ::listen(fd, SOMAXCONN) == 0)
            return fd;
        const int error = errno;
        ::close(fd);
        if (error != EADDRNOTAVAIL && error != EAFNOSUPPORT) {
            errno = error;
            return -1;
        }
    }
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(quint16(port));
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::listen(fd, SOMAXCONN) == 0)
        return fd;
    const int error = errno;
    ::close(fd);
    errno = error;
    return -1;
}

int boundPort(int fd)
{
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0)
        return 0;
    if (storage.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
}

void dropNotifier(QSocketNotifier*& notifier)
{
    if (!notifier)
        return;
    notifier->setEnabled(false);
    notifier->deleteLater(); // it may be the one whose signal is running
    notifier = nullptr;
}

} // namespace

WebServer::WebServer(WebViewer::Timeouts timeouts)
    : timeouts_(timeouts)
{
    sweepTimer_.setInterval(250);
    connect(&sweepTimer_, &QTimer::timeout, this, &WebServer::sweep);
}

WebServer::~WebServer()
{
    close();
}

void WebServer::listen(int port)
{
    close();
    const int fd = openListener(port);
    if (fd < 0) {
        const int error = errno;
        qCWarning(logWeb, "web: could not listen on port %d: %s", port, std::strerror(error));
        Q_EMIT stateChanged(WebViewer::State::failed(failureText(port, error)));
        return;
    }
    listener_ = fd;
    port_ = boundPort(fd);
    listenerNotifier_ = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(listenerNotifier_, &QSocketNotifier::activated, this, &WebServer::acceptAll);
    sweepTimer_.start();
    Q_EMIT stateChanged(WebViewer::State::listening(port_));
}

void WebServer::close()
{
    std::vector<int> fds;
    for (const auto& [fd, client] : clients_)
        fds.push_back(fd);
    for (int fd : fds)
        remove(fd);
    sweepTimer_.stop();
    if (listener_ < 0)
        return;
    dropNotifier(listenerNotifier_);
    ::close(listener_);
    listener_ = -1;
    port_ = 0;
    Q_EMIT stateChanged(WebViewer::State{});
}

void WebServer::refuse(const QString& message)
{
    close();
    Q_EMIT stateChanged(WebViewer::State::failed(message));
}

void WebServer::acceptAll()
{
    for (int accepted = 0; listener_ >= 0 && accepted < kAcceptsPerWake; ++accepted) {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        const int fd = ::accept4(listener_, reinterpret_cast<sockaddr*>(&peer), &length,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            admit(fd, addressOf(peer));
            continue;
        }
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            // Out of descriptors: the waiting connection would wake us at once, forever.
            qCWarning(logWeb, "web: cannot accept viewers for now: %s", std::strerror(errno));
            listenerNotifier_->setEnabled(false);
            QTimer::singleShot(100, this, [this] {
                if (listenerNotifier_)
                    listenerNotifier_->setEnabled(true);
            });
        }
        return; // EAGAIN, or an aborted connection: nothing more to take now
    }
}

void WebServer::admit(int fd, const QHostAddress& peer)
{
    // Private, loopback and link-local ranges pass without asking for the interface list.
    if (!isLocalNetworkPeer(peer, {}) && !isLocalNetworkPeer(peer, interfaceAddresses())) {
        qCInfo(logWeb, "web: turned away %s, which is not on the local network",
               qPrintable(peer.toString()));
        ::close(fd);
        return;
    }
    const int on = 1;
    const int sendBuffer = kSendBufferBytes;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);

    auto client = std::make_unique<Client>();
    client->fd = fd;
    client->acceptedAt = std::chrono::steady_clock::now();
    client->reader = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    client->writer = new QSocketNotifier(fd, QSocketNotifier::Write, this);
    client->writer->setEnabled(false);
    connect(client->reader, &QSocketNotifier::activated, this, [this, fd] { readFrom(fd); });
    connect(client->writer, &QSocketNotifier::activated, this, [this, fd] { flush(fd); });
    clients_[fd] = std::move(client);
}

void WebServer::readFrom(int fd)
{
    const auto found = clients_.find(fd);
    if (found == clients_.end())
        return;
    Client& client = *found->second;
    char buffer[kWebReadBytes];
    const ssize_t count = ::recv(fd, buffer, sizeof buffer, 0);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
        remove(fd); // the browser hung up, or the connection failed
        return;
    }
    if (count < 0 || client.isAnswered)
        return; // nothing yet, or more than the request: not needed

    client.request.append(buffer, count);
    auto answer = answerWebRequest(client.request);
    if (!answer) {
        if (client.request.size() > kWebRequestLimit)
            remove(fd);
        return;
    }
    client.isAnswered = true;
    client.request = QByteArray();
    if (answer->kind == WebAnswer::Kind::stream) {
        client.isStreaming = true;
        ++viewers_;
        publishViewers();
    } else {
        client.closeAfterSend = true;
    }
    startSending(client, std::make_shared<const QByteArray>(std::move(answer->bytes)));
}

void WebServer::broadcast(const std::shared_ptr<const QByteArray>& part)
{
    std::vector<int> ready;
    for (const auto& [fd, client] : clients_) {
        if (client->isStreaming && !client->isSending)
            ready.push_back(fd);
    }
    for (int fd : ready) {
        const auto found = clients_.find(fd);
        if (found != clients_.end())
            startSending(*found->second, part);
    }
}

void WebServer::startSending(Client& client, std::shared_ptr<const QByteArray> bytes)
{
    client.outgoing = std::move(bytes);
    client.sent = 0;
    client.isSending = true;
    client.sendStarted = std::chrono::steady_clock::now();
    flush(client.fd);
}

void WebServer::flush(int fd)
{
    const auto found = clients_.find(fd);
    if (found == clients_.end())
        return;
    Client& client = *found->second;
    if (!client.outgoing) {
        client.writer->setEnabled(false);
        return;
    }
    while (client.sent < client.outgoing->size()) {
        const ssize_t count =
            ::send(fd, client.outgoing->constData() + client.sent,
                   std::size_t(client.outgoing->size() - client.sent), MSG_NOSIGNAL);
        if (count > 0) {
            client.sent += count;
            continue;
        }
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            client.writer->setEnabled(true);
            return;
        }
        remove(fd);
        return;
    }
    client.writer->setEnabled(false);
    client.outgoing.reset();
    client.isSending = false;
    if (client.closeAfterSend)
        finishAnswer(client);
}

void WebServer::finishAnswer(Client& client)
{
    // Closing with the browser's unread bytes (a POST's body) would reset the connection and
    // could lose the answer: say we are done and wait for the browser to hang up.
    ::shutdown(client.fd, SHUT_WR);
    client.isClosing = true;
    client.closingSince = std::chrono::steady_clock::now();
}

void WebServer::remove(int fd)
{
    const auto found = clients_.find(fd);
    if (found == clients_.end())
        return;
    const std::unique_ptr<Client> client = std::move(found->second);
    clients_.erase(found);
    dropNotifier(client->reader);
    dropNotifier(client->writer);
    ::close(fd);
    if (client->isStreaming) {
        --viewers_;
        publishViewers();
    }
}

void WebServer::sweep()
{
    const Instant now = std::chrono::steady_clock::now();
    std::vector<int> expired;
    for (const auto& [fd, client] : clients_) {
        if (!client->isAnswered && secondsBetween(client->acceptedAt, now) > timeouts_.request)
            expired.push_back(fd);
        else if (client->isSending &&
                 secondsBetween(client->sendStarted, now) > timeouts_.stalledSend)
            expired.push_back(fd);
        else if (client->isClosing && secondsBetween(client->closingSince, now) > kClosingSeconds)
            expired.push_back(fd);
    }
    for (int fd : expired)
        remove(fd);
}

void WebServer::publishViewers()
{
    Q_EMIT viewersChanged(viewers_);
}

} // namespace orvane
