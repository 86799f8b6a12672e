#include "support/AvahiSandbox.h"

#include <QDeadlineTimer>
#include <QFile>

#include <algorithm>

namespace orvane {

namespace {

const char* const kDaemonConfig = R"([server]
host-name=orvane-test
use-ipv4=yes
use-ipv6=no
allow-interfaces=orvq0
enable-dbus=yes
ratelimit-interval-usec=0
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
)";

// Sets up the namespace the daemon runs in, says so, and keeps it alive.
const char* const kHolderScript = R"(set -e
mount -t tmpfs orvane-avahi-run /run
ip link set lo up
ip link add orvq0 type veth peer name orvq1
ip link set orvq1 up
ip link set orvq0 multicast on up
ip addr add 192.0.2.1/24 dev orvq0
echo ready
exec sleep 100000
)";

} // namespace

void AvahiSandbox::Stop::operator()(QProcess* process) const
{
    if (process->state() != QProcess::NotRunning) {
        process->terminate();
        if (!process->waitForFinished(5000)) {
            process->kill();
            process->waitForFinished(5000);
        }
    }
    delete process;
}

AvahiSandbox::Process AvahiSandbox::launch(const QString& program, const QStringList& arguments,
                                           bool onBus, const QByteArray& line, int milliseconds)
{
    Process process(new QProcess);
    process->setProcessChannelMode(QProcess::MergedChannels);
    if (onBus) {
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + folder_.filePath("bus"));
        process->setProcessEnvironment(environment);
    }
    process->start(program, arguments);
    process->waitForStarted(5000);
    QByteArray output;
    QDeadlineTimer deadline(milliseconds);
    while (!(output += process->readAll()).contains(line)) {
        if (deadline.hasExpired() || process->state() == QProcess::NotRunning) {
            error_ = program + " failed (it needs root): " + process->errorString() + ' ' +
                     QString::fromLocal8Bit(output);
            return nullptr;
        }
        process->waitForReadyRead(int(std::max<qint64>(1, deadline.remainingTime())));
    }
    return process;
}

bool AvahiSandbox::start()
{
    if (QFile config(folder_.filePath("avahi.conf"));
        !config.open(QIODevice::WriteOnly) || config.write(kDaemonConfig) < 0) {
        error_ = QStringLiteral("cannot write the daemon's configuration");
        return false;
    }
    // A bus with the session bus's rules (anyone may own any name) at an address of our own.
    const QString bus = "unix:path=" + folder_.filePath("bus");
    bus_ = launch("dbus-daemon",
                  {"--session", "--address=" + bus, "--nofork", "--nopidfile", "--print-address=1"},
                  false, "unix:", 5000);
    holder_ = bus_ ? launch("unshare",
                            {"--net", "--mount", "--propagation", "private", "sh", "-c",
                             QString::fromLatin1(kHolderScript)},
                            false, "ready", 5000)
                   : nullptr;
    if (!holder_)
        return false;
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", bus.toUtf8());
    return startDaemon();
}

bool AvahiSandbox::startDaemon()
{
    daemon_.reset();
    // nsenter runs the daemon in the holder's namespaces in place of itself.
    daemon_ = launch("nsenter",
                     {"--target", QString::number(holder_->processId()), "--net", "--mount",
                      "avahi-daemon", "--no-drop-root", "--no-chroot", "--no-rlimits",
                      "--no-proc-title", "-f", folder_.filePath("avahi.conf")},
                     true, "Server startup complete", 15000);
    return daemon_ != nullptr;
}

void AvahiSandbox::stopDaemon()
{
    daemon_.reset();
    published_.clear(); // avahi-publish gives up when its daemon goes away
}

bool AvahiSandbox::publish(const QString& name, const QString& type, int port)
{
    unpublish(name);
    Process process = launch("avahi-publish", {"-s", name, type, QString::number(port)}, true,
                             "Established under name", 10000);
    if (process)
        published_[name] = std::move(process);
    return bool(published_.count(name));
}

} // namespace orvane
