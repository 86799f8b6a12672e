#include "support/NetNamespace.h"

#include <QFile>
#include <QProcess>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orvane {

namespace {

bool failWith(QString* error, const QString& text)
{
    if (error)
        *error = text;
    return false;
}

} // namespace

bool NetNamespace::isolateThisProcess(QString* error)
{
    if (::unshare(CLONE_NEWNET) != 0)
        return failWith(error, QStringLiteral("cannot make a network namespace: ") +
                                   QString::fromLocal8Bit(std::strerror(errno)));
    // No thread has started yet, so a child process may configure the namespace we share.
    return std::system("ip link set lo up") == 0 ||
           failWith(error, QStringLiteral("cannot bring loopback up"));
}

bool NetNamespace::runIp(const QStringList& arguments, QString* error)
{
    QProcess ip;
    ip.setProcessChannelMode(QProcess::MergedChannels);
    ip.start(QStringLiteral("ip"), arguments);
    if (ip.waitForFinished(10'000) && ip.exitStatus() == QProcess::NormalExit && ip.exitCode() == 0)
        return true;
    return failWith(error, "ip " + arguments.join(u' ') + ": " +
                               QString::fromLocal8Bit(ip.readAll()).trimmed());
}

std::unique_ptr<NetNamespace> NetNamespace::create(const QString& name,
                                                   const QHostAddress& localAddress,
                                                   const QHostAddress& peerAddress,
                                                   int prefixLength, QString* error)
{
    // Short unique names: interface names are limited to 15 bytes.
    static std::atomic<int> next{0};
    const QString suffix = QStringLiteral("%1x%2").arg(getpid() % 100000).arg(next++);
    std::unique_ptr<NetNamespace> space(new NetNamespace);
    space->name_ = QStringLiteral("orvane-%1-%2").arg(name, suffix);
    if (!runIp({"netns", "add", space->name_}, error))
        return nullptr;
    space->localInterface_ = "ve" + suffix; // set from here on: the destructor removes both
    space->peerInterface_ = "vp" + suffix;
    const QString local = space->localInterface_;
    const bool made =
        runIp({"link", "add", local, "type", "veth", "peer", "name", space->peerInterface_, "netns",
               space->name_},
              error) &&
        runIp({"addr", "add", cidr(localAddress, prefixLength), "dev", local}, error) &&
        runIp({"link", "set", local, "up"}, error) &&
        space->runIpInside({"link", "set", "lo", "up"}, error) &&
        space->addPeerAddress(peerAddress, prefixLength, error) &&
        space->runIpInside({"link", "set", space->peerInterface_, "up"}, error);
    return made ? std::move(space) : nullptr;
}

NetNamespace::~NetNamespace()
{
    if (localInterface_.isEmpty())
        return;
    // Deleting the namespace takes its end of the veth pair, and with it ours.
    runIp({"link", "del", localInterface_});
    runIp({"netns", "del", name_});
}

int NetNamespace::socket(int type) const
{
    // A thread may enter another network namespace on its own; sockets keep the namespace
    // they were made in, so the descriptor can be used from any thread afterwards.
    const QByteArray path = QFile::encodeName("/run/netns/" + name_);
    int made = -1;
    std::thread inside([&] {
        const int space = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
        if (space >= 0 && ::setns(space, CLONE_NEWNET) == 0)
            made = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
        if (space >= 0)
            ::close(space);
    });
    inside.join();
    return made;
}

} // namespace orvane
