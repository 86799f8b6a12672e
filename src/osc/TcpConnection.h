#pragma once

#include "osc/NetworkKind.h"
#include "osc/OSCStream.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

class QHostInfo;
class QSocketNotifier;

namespace orvane {

// One outgoing TCP connection for OSCStream, on a socket of our own so that the options a
// show link needs are set before connecting: no-delay, TCP keep-alive (idle 5 s, interval
// 2 s, 3 probes) and, when asked, binding to an interface of one kind. Failures carry the
// system's error, mapped by meaning. It reports each thing once through its handlers and
// does nothing after close(). Main thread only.
class TcpConnection : public QObject {
    Q_OBJECT
public:
    struct Handlers {
        std::function<void()> connected;
        std::function<void(QByteArrayView)> received;
        std::function<void(const OSCStream::Failure&)> failed;
    };

    TcpConnection(Handlers handlers, QObject* parent);
    ~TcpConnection() override;

    void start(const QString& host, quint16 port, std::optional<NetworkKind> interfaceKind);
    // Writes all of `bytes`, queueing what the socket does not take at once. False when the
    // connection is not established.
    bool write(QByteArrayView bytes);
    // Stops everything and closes the socket at once; no handler is called afterwards.
    void close();
    // Hands the connection over to be closed gently, so the peer reads every byte written: what
    // is queued is sent, our side is shut down, and what the peer still sends is read and
    // dropped until it closes too (at most kLingerTimeout). A socket closed with unread input
    // would send a reset instead and could lose the last message. No handler is called
    // afterwards; the object deletes itself when done.
    void closeGracefully();

    static constexpr int kLingerTimeoutMs = 2000;

private:
    void hostFound(const QHostInfo& info);
    void connectToNextAddress();
    void connectFinished();
    void readAvailable();
    void flush();
    void drain();
    void finishGracefulClose();
    void closeSocket();
    void reportFailure(const OSCStream::Failure& failure);

    Handlers handlers_;
    quint16 port_ = 0;
    std::optional<NetworkKind> interfaceKind_;
    int lookupId_ = -1;
    QList<QHostAddress> addresses_;
    int lastError_ = 0;
    int fd_ = -1;
    bool isConnected_ = false;
    bool isClosed_ = false;
    bool isLingering_ = false;
    bool isWriteShutDown_ = false;
    QSocketNotifier* readNotifier_ = nullptr;
    QSocketNotifier* writeNotifier_ = nullptr;
    QByteArray pending_;
};

// The failure that a system error number stands for (ECONNREFUSED is refused, ETIMEDOUT
// noAnswer, ...); anything unknown is `other` with the system's own text.
OSCStream::Failure failureForSystemError(int errorNumber);

// The interface an outgoing connection to `address` restricted to `kind` should be bound
// to: the one the route takes when it is of that kind, else the first of that kind that is
// up. Empty when there is none.
std::optional<QString> interfaceForConnection(const QHostAddress& address, NetworkKind kind);

// Binds socket `fd` to the device `name` as SO_BINDTODEVICE does: 0, or -1 with errno set.
using BindToDevice = int (*)(int fd, const QByteArray& name);
// Puts `bind` in place of the system call (nullptr: the system call again), so a test can
// refuse it as a kernel does for a process without the capability.
void setBindToDeviceForTesting(BindToDevice bind);

} // namespace orvane
