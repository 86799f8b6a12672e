#pragma once

#include <QHostAddress>
#include <QString>
#include <QStringList>

#include <memory>

namespace orvane {

// A pretend host for tests: a network namespace joined to the caller's namespace by a veth
// pair, with an address on each end. Sockets made with socket() live inside it, so a pretend
// console in the test's own process can sit on the pretend host's addresses. Everything is
// removed when the object dies. Each step that fails fills `error` when one is given.
// Main thread only.
class NetNamespace {
public:
    // Namespace `name` (made unique) whose end has `peerAddress`, ours `localAddress`.
    static std::unique_ptr<NetNamespace> create(const QString& name,
                                                const QHostAddress& localAddress,
                                                const QHostAddress& peerAddress, int prefixLength,
                                                QString* error = nullptr);
    ~NetNamespace();
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;

    // Moves the calling process into a namespace of its own with only loopback up. Call first
    // thing in main(), before any thread starts; false when not allowed (not root).
    static bool isolateThisProcess(QString* error = nullptr);

    // The ends of the link: ours, and the pretend host's.
    QString localInterface() const { return localInterface_; }
    QString peerInterface() const { return peerInterface_; }

    // Adds or removes an address on the pretend host's end of the link.
    bool addPeerAddress(const QHostAddress& address, int prefixLength, QString* error = nullptr)
    {
        return runIpInside({"addr", "add", cidr(address, prefixLength), "dev", peerInterface_},
                           error);
    }
    bool removePeerAddress(const QHostAddress& address, int prefixLength, QString* error = nullptr)
    {
        return runIpInside({"addr", "del", cidr(address, prefixLength), "dev", peerInterface_},
                           error);
    }

    // A new socket (as socket(2) with AF_INET) inside the namespace, or -1.
    int socket(int type) const;

    // Runs `ip ARGUMENTS...` in the caller's namespace, or inside this one, and waits for it.
    static bool runIp(const QStringList& arguments, QString* error = nullptr);
    bool runIpInside(const QStringList& arguments, QString* error = nullptr) const
    {
        return runIp(QStringList{"-n", name_} + arguments, error);
    }

private:
    NetNamespace() = default;
    static QString cidr(const QHostAddress& address, int prefixLength)
    {
        return address.toString() + u'/' + QString::number(prefixLength);
    }

    QString name_;
    QString localInterface_;
    QString peerInterface_;
};

} // namespace orvane
