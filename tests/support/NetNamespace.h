#pragma once

#include <QHostAddress>
#include <QString>
#include <QStringList>

#include <memory>

namespace orvane {

// A pretend host for tests: a network namespace joined to the caller's namespace by a veth
// pair, with an address on each end. Sockets made with socket() live inside it, so a pretend
// console in the test's own process can sit on the pretend host's addresses. Everything is
// removed when the object dies. Main thread only.
class NetNamespace {
public:
    // Makes namespace `name` (made unique for this process) whose end of the link has
    // `peerAddress`, while this namespace's end gets `localAddress`; both use `prefixLength`.
    // Returns nothing and fills `error` when a step fails.
    static std::unique_ptr<NetNamespace> create(const QString& name,
                                                const QHostAddress& localAddress,
                                                const QHostAddress& peerAddress, int prefixLength,
                                                QString* error = nullptr);
    ~NetNamespace();
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;

    // Moves the calling process into a network namespace of its own with only loopback up,
    // so its broadcasts and interface lists see only what the test makes. Call first thing in
    // main(), before any thread starts. False (with `error`) when not allowed (not root).
    static bool isolateThisProcess(QString* error = nullptr);

    // The interface names of the link: the end in the caller's namespace and the pretend host's.
    QString localInterface() const { return localInterface_; }
    QString peerInterface() const { return peerInterface_; }

    // Adds or removes an address on the pretend host's end of the link.
    bool addPeerAddress(const QHostAddress& address, int prefixLength, QString* error = nullptr);
    bool removePeerAddress(const QHostAddress& address, int prefixLength, QString* error = nullptr);

    // A new socket (as socket(2) with AF_INET) inside the namespace, or -1.
    int socket(int type) const;

    // Runs `ip ARGUMENTS...` (in the caller's namespace, or inside this one), waiting for it.
    static bool runIp(const QStringList& arguments, QString* error = nullptr);
    bool runIpInside(const QStringList& arguments, QString* error = nullptr) const;

private:
    NetNamespace() = default;

    QString name_;
    QString localInterface_;
    QString peerInterface_;
};

} // namespace orvane
