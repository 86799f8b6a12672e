#include "osc/OSCListener.h"

#include "base/Checks.h"

#include <QLoggingCategory>
#include <QNetworkDatagram>
#include <QPointer>
#include <QUdpSocket>

namespace orvane {

namespace {

Q_LOGGING_CATEGORY(lcListener, "orvane.osc")

constexpr double kRetrySeconds = 5.0;
constexpr double kSilenceLimitSeconds = 60.0;

QString choosePortMessage()
{
    return QStringLiteral("Choose a port between 1 and 65535.");
}

// IPv4 senders reach the dual-stack socket as IPv4-mapped IPv6 addresses; show them plainly.
QHostAddress plainAddress(const QHostAddress& address)
{
    bool isIPv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIPv4);
    return isIPv4 ? QHostAddress(ipv4) : address;
}

// The host as people read it: without an interface scope such as "%eth0".
QString senderText(const QHostAddress& address)
{
    const QString text = plainAddress(address).toString();
    const qsizetype scope = text.indexOf(u'%');
    return scope < 0 ? text : text.left(scope);
}

} // namespace

OSCListener::OSCListener(Clock& clock, QObject* parent)
    : QObject(parent)
    , clock_(clock)
    , retry_(clock)
{
}

OSCListener::~OSCListener() = default;

void OSCListener::configure(bool enabled, int port)
{
    assertOnOwnThread(this);
    if (!enabled) {
        stop();
        return;
    }
    if (port < 1 || port > 65535) {
        halt();
        setState({State::Kind::failed, std::nullopt, choosePortMessage()});
        return;
    }
    if (port_ == port) {
        if (socket_ == nullptr && !retry_.isActive())
            start();
        return;
    }
    halt();
    port_ = static_cast<quint16>(port);
    start();
}

OSCListener::State OSCListener::state() const
{
    assertOnOwnThread(this);
    return state_;
}

QString OSCListener::stateText() const
{
    assertOnOwnThread(this);
    switch (state_.kind) {
    case State::Kind::listening:
        return state_.port ? QStringLiteral("Listening on port %1").arg(*state_.port)
                           : QStringLiteral("Listening");
    case State::Kind::failed:
        return state_.message;
    case State::Kind::off:
        return QStringLiteral("Off");
    }
    return {};
}

std::optional<QString> OSCListener::lastSender() const
{
    assertOnOwnThread(this);
    return lastSender_;
}

void OSCListener::setOnPacket(std::function<void(const QByteArray&, const Sender&)> onPacket)
{
    assertOnOwnThread(this);
    onPacket_ = std::move(onPacket);
}

QStringList OSCListener::sendersForTesting() const
{
    QStringList senders;
    for (auto it = lastHeard_.cbegin(); it != lastHeard_.cend(); ++it)
        senders << senderText(it.key().address) + u' ' + QString::number(it.key().port);
    senders.sort();
    return senders;
}

void OSCListener::start()
{
    retry_.stop();
    closeSocket();
    if (!port_ || *port_ == 0) {
        setState({State::Kind::failed, std::nullopt, choosePortMessage()});
        return;
    }
    const quint16 port = *port_;

    // Without address reuse: on Linux two sockets that both allow it share a port silently,
    // and the operator would never learn that another app holds it.
    auto* socket = new QUdpSocket(this);
    bool bound = socket->bind(QHostAddress::Any, port, QAbstractSocket::DontShareAddress);
    if (!bound && socket->error() == QAbstractSocket::UnsupportedSocketOperationError) {
        // No IPv6 on this machine: listen on IPv4 alone.
        bound = socket->bind(QHostAddress::AnyIPv4, port, QAbstractSocket::DontShareAddress);
    }
    if (!bound) {
        const QAbstractSocket::SocketError error = socket->error();
        const QString description = socket->errorString();
        delete socket;
        switch (error) {
        case QAbstractSocket::AddressInUseError:
            fail(QStringLiteral("Port %1 is in use by another app. Choose a different port or "
                                "quit that app.")
                     .arg(port));
            return;
        case QAbstractSocket::SocketResourceError:
        case QAbstractSocket::UnsupportedSocketOperationError:
            fail(QStringLiteral("Orvane couldn't listen on port %1.").arg(port));
            return;
        default:
            fail(description);
            return;
        }
    }

    socket_ = socket;
    connect(socket_, &QUdpSocket::readyRead, this, &OSCListener::readDatagrams);
    connect(socket_, &QUdpSocket::errorOccurred, this, [this, socket] {
        // Errors of single datagrams leave the socket bound; only a lost socket is a failure.
        if (socket == socket_ && socket->state() != QAbstractSocket::BoundState)
            fail(socket->errorString());
    });
    qCInfo(lcListener) << "listening on UDP port" << port;
    setState({State::Kind::listening, port, {}});
    // Datagrams may already wait.
    readDatagrams();
}

void OSCListener::stop()
{
    halt();
    setState({});
}

void OSCListener::halt()
{
    retry_.stop();
    closeSocket();
}

void OSCListener::fail(const QString& message)
{
    closeSocket();
    qCWarning(lcListener).noquote()
        << "listener on port" << (port_ ? *port_ : 0) << "failed:" << message;
    setState({State::Kind::failed, std::nullopt, message});
    retry_.start(Seconds(kRetrySeconds), [this] { start(); });
}

void OSCListener::closeSocket()
{
    lastHeard_.clear();
    if (socket_ == nullptr)
        return;
    // This may run inside the socket's own signal (an owner reconfiguring from onPacket).
    QUdpSocket* socket = std::exchange(socket_, nullptr);
    socket->disconnect(this);
    socket->close();
    socket->deleteLater();
}

void OSCListener::setState(State state)
{
    if (state == state_)
        return;
    state_ = std::move(state);
    Q_EMIT stateChanged();
}

void OSCListener::readDatagrams()
{
    assertOnOwnThread(this);
    QUdpSocket* const socket = socket_;
    const QPointer<OSCListener> alive(this);
    while (socket != nullptr && socket == socket_ && socket->hasPendingDatagrams()) {
        const QNetworkDatagram datagram = socket->receiveDatagram();
        if (!datagram.isValid())
            return;
        if (datagram.data().isEmpty())
            continue;
        hear({plainAddress(datagram.senderAddress()), static_cast<quint16>(datagram.senderPort())},
             datagram.data());
        if (!alive)
            return;
    }
}

bool OSCListener::send(const QByteArray& datagram, const QHostAddress& address, quint16 port)
{
    assertOnOwnThread(this);
    if (socket_ == nullptr)
        return false;
    return socket_->writeDatagram(datagram, address, port) == datagram.size();
}

void OSCListener::hear(const Peer& peer, const QByteArray& datagram)
{
    const Instant now = clock_.now();
    auto known = lastHeard_.find(peer);
    if (known == lastHeard_.end()) {
        pruneSilentPeers();
        lastHeard_.insert(peer, now);
    } else {
        known.value() = now;
    }

    const QString sender = senderText(peer.address);
    if (lastSender_ != sender) {
        lastSender_ = sender;
        const QPointer<OSCListener> alive(this);
        Q_EMIT lastSenderChanged();
        if (!alive)
            return;
    }
    if (onPacket_)
        onPacket_(datagram, Sender{peer.address, peer.port, sender});
}

void OSCListener::pruneSilentPeers()
{
    const Instant now = clock_.now();
    lastHeard_.removeIf([&](const QHash<Peer, Instant>::iterator& entry) {
        return secondsBetween(entry.value(), now) > kSilenceLimitSeconds;
    });
}

} // namespace orvane
