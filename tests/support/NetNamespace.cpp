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

void setError(QString* error, const QString& text)
{
    if (error)
        *error = text;
}

// Short unique names: interface names are limited to 15 bytes.
QString uniqueSuffix()
{
    static std::atomic<int> next{0};
    return QStringLiteral("%1x%2").arg(getpid() % 100000).arg(next++);
}

QString cidr(const QHostAddress& address, int prefixLength)
{
    return QStringLiteral("%1/%2").arg(address.toString()).arg(prefixLength);
}

} // namespace

bool NetNamespace::isolateThisProcess(QString* error)
{
    if (::unshare(CLONE_NEWNET) != 0) {
        setError(error, QStringLiteral("cannot make a network namespace: %1")
                            .arg(QString::fromLocal8Bit(std::strerror(errno))));
        return false;
    }
    // No thread has started yet, so a child process is the simplest way to configure the
    // namespace it shares with us.
    if (std::system("ip link set lo up") != 0) {
        setError(error, QStringLiteral("cannot bring loopback up"));
        return false;
    }
    return true;
}

bool NetNamespace::runIp(const QStringList& arguments, QString* error)
{
    QProcess ip;
    ip.setProcessChannelMode(QProcess::MergedChannels);
    ip.start(QStringLiteral("ip"), arguments);
    if (!ip.waitForFinished(10'000) || ip.exitStatus() != QProcess::NormalExit ||
        ip.exitCode() != 0) {
        setError(error, QStringLiteral("ip %1: %2")
                            .arg(arguments.join(QLatin1Char(' ')),
                                 QString::fromLocal8Bit(ip.readAll()).trimmed()));
        return false;
    }
    return true;
}

bool NetNamespace::runIpInside(const QStringList& arguments, QString* error) const
{
    return runIp(QStringList{QStringLiteral("-n"), name_} + arguments, error);
}

std::unique_ptr<NetNamespace> NetNamespace::create(const QString& name,
                                                   const QHostAddress& localAddress,
                                                   const QHostAddress& peerAddress,
                                                   int prefixLength, QString* error)
{
    std::unique_ptr<NetNamespace> space(new NetNamespace);
    const QString suffix = uniqueSuffix();
    space->name_ = QStringLiteral("orvane-%1-%2").arg(name, suffix);
    space->localInterface_ = QStringLiteral("ve%1").arg(suffix);
    space->peerInterface_ = QStringLiteral("vp%1").arg(suffix);
    if (!runIp({"netns", "add", space->name_}, error))
        return nullptr;
    const bool made =
        runIp({"link", "add", space->localInterface_, "type", "veth", "peer", "name",
               space->peerInterface_, "netns", space->name_},
              error) &&
        runIp({"addr", "add", cidr(localAddress, prefixLength), "dev", space->localInterface_},
              error) &&
        runIp({"link", "set", space->localInterface_, "up"}, error) &&
        space->runIpInside({"link", "set", "lo", "up"}, error) &&
        space->runIpInside(
            {"addr", "add", cidr(peerAddress, prefixLength), "dev", space->peerInterface_},
            error) &&
        space->runIpInside({"link", "set", space->peerInterface_, "up"}, error);
    if (!made)
        return nullptr;
    return space;
}

NetNamespace::~NetNamespace()
{
    if (name_.isEmpty())
        return;
    // Deleting the namespace takes its end of the veth pair, and with it ours.
    runIp({"link", "del", localInterface_});
    runIp({"netns", "del", name_});
}

bool NetNamespace::addPeerAddress(const QHostAddress& address, int prefixLength, QString* error)
{
    return runIpInside({"addr", "add", cidr(address, prefixLength), "dev", peerInterface_}, error);
}

bool NetNamespace::removePeerAddress(const QHostAddress& address, int prefixLength, QString* error)
{
    return runIpInside({"addr", "del", cidr(address, prefixLength), "dev", peerInterface_}, error);
}

int NetNamespace::socket(int type) const
{
    // A thread may enter another network namespace on its own; sockets keep the namespace
    // they were made in, so the descriptor can be used from any thread afterwards.
    const QByteArray path = QFile::encodeName(QStringLiteral("/run/netns/") + name_);
    int made = -1;
    std::thread inside([&] {
        const int space = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
        if (space < 0)
            return;
        if (::setns(space, CLONE_NEWNET) == 0)
            made = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
        ::close(space);
    });
    inside.join();
    return made;
}

} // namespace orvane
