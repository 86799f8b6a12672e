#pragma once

#include "base/Clock.h"

#include <QHash>
#include <QHostAddress>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

class QUdpSocket;

namespace orvane {

// Orvane's own OSC input: a UDP server on the operator's port that hands every non-empty
// datagram to its owner, remembers who sent last and says what it is doing in words the
// interface shows. Retries every 5 s while it cannot listen. Main thread only.
class OSCListener : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString stateText READ stateText NOTIFY stateChanged)

public:
    struct State {
        enum class Kind { listening, failed, off };
        Kind kind = Kind::off;
        std::optional<quint16> port; // listening: the port
        QString message;             // failed: the sentence to show
        friend bool operator==(const State&, const State&) = default;
    };

    // Who sent a datagram: the address and port an answer goes to, and the host as shown.
    struct Sender {
        QHostAddress address;
        quint16 port = 0;
        QString host; // "192.168.1.20", "fe80::1"
        friend bool operator==(const Sender&, const Sender&) = default;
    };

    explicit OSCListener(Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~OSCListener() override;

    // The only control: start, restart on a new port, or stop.
    void configure(bool enabled, int port);

    State state() const;
    // "Listening on port 8001", the failure's sentence, or "Off".
    QString stateText() const;
    // The host of the most recent sender ("192.168.1.20", "fe80::1"), once anyone has sent.
    std::optional<QString> lastSender() const;

    // Sends `datagram` from the listening port to `address` and `port`: an answer goes back
    // the way its question came. False when not listening or the system refused it.
    bool send(const QByteArray& datagram, const QHostAddress& address, quint16 port);

    // Called with every non-empty datagram and its sender.
    void
    setOnPacket(std::function<void(const QByteArray& datagram, const Sender& sender)> onPacket);

    // The senders heard within the last 60 s (as far as pruning has gone), as "host port".
    QStringList sendersForTesting() const;

Q_SIGNALS:
    void stateChanged();
    void lastSenderChanged();

private:
    struct Peer {
        QHostAddress address;
        quint16 port = 0;
        friend bool operator==(const Peer&, const Peer&) = default;
        friend size_t qHash(const Peer& peer, size_t seed = 0)
        {
            return qHashMulti(seed, peer.address, peer.port);
        }
    };

    void start();
    void stop();
    void halt(); // stop without a state change
    void fail(const QString& message);
    void closeSocket();
    void setState(State state);
    void readDatagrams();
    void hear(const Peer& peer, const QByteArray& datagram);
    void pruneSilentPeers();

    Clock& clock_;
    Timer retry_;
    QUdpSocket* socket_ = nullptr; // child of this; released with deleteLater
    std::optional<quint16> port_;
    State state_;
    std::optional<QString> lastSender_;
    QHash<Peer, Instant> lastHeard_;
    std::function<void(const QByteArray&, const Sender&)> onPacket_;
};

} // namespace orvane
