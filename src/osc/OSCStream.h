#pragma once

#include "base/Clock.h"
#include "osc/NetworkKind.h"
#include "osc/OSCFraming.h"
#include "osc/OSCMessage.h"
#include "osc/OSCStreamDecoder.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

namespace orvane {

class TcpConnection;

// The outgoing OSC link over TCP to one peer (an Eos console, a QLab host): connects, frames
// and unframes packets, keeps the link alive, notices a silent peer and reconnects after every
// failure, waiting 1, 2, 3, 5, 8 and then 10 s (from 1 s again once it has been ready).
// Main thread only.
class OSCStream : public QObject {
    Q_OBJECT
public:
    struct Target {
        QString host;
        int port = 0;
        OSCFraming framing = OSCFraming::slip;
        // The kind of interface the connection must use; any when empty.
        std::optional<NetworkKind> interfaceType;
        friend bool operator==(const Target&, const Target&) = default;
    };

    struct Failure {
        enum class Kind {
            other,
            refused,
            noAnswer,
            unreachable,
            unknownHost,
            closedByPeer,
            wentQuiet,
            invalidPort,
            wrongProtocol,
        };
        Kind kind = Kind::other;
        QString text; // the system's description, only for `other`
        friend bool operator==(const Failure&, const Failure&) = default;
    };

    struct Status {
        enum class Kind { retrying, idle, connecting, ready };
        Kind kind = Kind::idle;
        Failure failure; // only for `retrying`
        int attempt = 0; // only for `retrying`: consecutive failures so far
        friend bool operator==(const Status&, const Status&) = default;
    };

    static constexpr Seconds kConnectTimeout{4.0};
    static constexpr Seconds kDefaultKeepAliveInterval{5.0};

    explicit OSCStream(Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~OSCStream() override;

    // Connects to `target`; nothing happens when it is the current target and the link is
    // not idle. Otherwise the failure count starts again.
    void connectTo(const Target& target);
    // Tears the link down and forgets the target.
    void disconnect();
    // While retrying, tries again at once instead of waiting.
    void retryNow();
    // Frames `message` and writes it whole on the ready link; dropped when not ready.
    void send(const OSCMessage& message);

    Status status() const { return status_; }
    std::optional<Target> target() const { return target_; }

    void setOnStatusChange(std::function<void(const Status&)> callback);
    // Called each time the link becomes ready.
    void setOnReady(std::function<void()> callback);
    // Called once per received packet, in stream order.
    void setOnPacket(std::function<void(const QByteArray&)> callback);

    // While ready, every keep-alive interval: `message` is sent when set, then `callback` is
    // called when set.
    void setKeepAlive(std::optional<OSCMessage> message, std::function<void()> callback = {});
    void setKeepAliveInterval(Seconds interval);
    // The link fails as wentQuiet when nothing arrives for longer than this.
    void setSilenceTimeout(std::optional<Seconds> timeout);

    // The wait before the next attempt after `failures` consecutive failures.
    static Seconds retryDelay(int failures);

private:
    void attempt();
    void tearDown();
    void fail(Failure failure);
    void becomeReady();
    void receive(QByteArrayView chunk);
    void keepAliveTick();
    void setStatus(Status status);

    Clock& clock_;
    Status status_;
    std::optional<Target> target_;
    std::function<void(const Status&)> onStatusChange_;
    std::function<void()> onReady_;
    std::function<void(const QByteArray&)> onPacket_;
    std::optional<OSCMessage> keepAliveMessage_;
    std::function<void()> keepAliveCallback_;
    Seconds keepAliveInterval_ = kDefaultKeepAliveInterval;
    std::optional<Seconds> silenceTimeout_;

    TcpConnection* connection_ = nullptr; // a child; replaced for every attempt
    OSCStreamDecoder decoder_{OSCFraming::slip};
    Instant lastReceived_{};
    int failures_ = 0;
    // Bumped whenever the connection is torn down, so work for an older one stops.
    quint64 generation_ = 0;
    Timer retryTimer_;
    Timer keepAliveTimer_;
    Timer connectTimer_;
};

} // namespace orvane
