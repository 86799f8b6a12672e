#include "support/AvahiSandbox.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QThread>

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

bool writeFile(const QString& path, const QByteArray& contents)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size();
}

// Starts `program` with its output merged, on the private bus `bus` when one is given.
std::unique_ptr<QProcess> launch(const QString& program, const QStringList& arguments,
                                 const QString& bus = {})
{
    auto process = std::make_unique<QProcess>();
    process->setProcessChannelMode(QProcess::MergedChannels);
    if (!bus.isEmpty()) {
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert("DBUS_SYSTEM_BUS_ADDRESS", bus);
        process->setProcessEnvironment(environment);
    }
    process->start(program, arguments);
    return process;
}

} // namespace

AvahiSandbox::AvahiSandbox() = default;

AvahiSandbox::~AvahiSandbox()
{
    for (auto& [name, process] : published_)
        stopProcess(process);
    stopProcess(daemon_);
    stopProcess(holder_);
    stopProcess(bus_);
}

QString AvahiSandbox::busAddress() const
{
    return QStringLiteral("unix:path=") + folder_.filePath(QStringLiteral("bus"));
}

bool AvahiSandbox::start()
{
    if (!folder_.isValid()) {
        error_ = QStringLiteral("no temporary folder");
        return false;
    }
    if (!writeFile(folder_.filePath(QStringLiteral("avahi.conf")), kDaemonConfig)) {
        error_ = QStringLiteral("cannot write the daemon's configuration");
        return false;
    }
    // A bus with the session bus's rules (anyone may own any name) at an address of our own.
    bus_ = launch("dbus-daemon", {"--session", "--address=" + busAddress(), "--nofork",
                                  "--nopidfile", "--print-address=1"});
    if (!bus_->waitForStarted(5000) || !waitForLine(*bus_, "unix:", 5000)) {
        error_ = QStringLiteral("dbus-daemon did not start: ") + bus_->errorString() +
                 QString::fromLocal8Bit(output_);
        return false;
    }

    holder_ = launch("unshare", {"--net", "--mount", "--propagation", "private", "sh", "-c",
                                 QString::fromLatin1(kHolderScript)});
    if (!holder_->waitForStarted(5000) || !waitForLine(*holder_, "ready", 5000)) {
        error_ = QStringLiteral("cannot make the daemon's network namespace (needs root): ") +
                 QString::fromLocal8Bit(output_);
        return false;
    }
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress().toUtf8());
    return startDaemon();
}

bool AvahiSandbox::startDaemon()
{
    stopProcess(daemon_);
    // nsenter runs the daemon in the holder's namespaces in place of itself.
    daemon_ = launch("nsenter",
                     {"--target", QString::number(holder_->processId()), "--net", "--mount",
                      "avahi-daemon", "--no-drop-root", "--no-chroot", "--no-rlimits",
                      "--no-proc-title", "-f", folder_.filePath("avahi.conf")},
                     busAddress());
    if (!daemon_->waitForStarted(5000) ||
        !waitForLine(*daemon_, "Server startup complete", 15000)) {
        error_ = QStringLiteral("avahi-daemon did not start: ") + QString::fromLocal8Bit(output_);
        return false;
    }
    return true;
}

void AvahiSandbox::stopDaemon()
{
    stopProcess(daemon_);
    // avahi-publish gives up when its daemon goes away.
    for (auto& [name, process] : published_)
        stopProcess(process);
    published_.clear();
}

bool AvahiSandbox::publish(const QString& name, const QString& type, int port)
{
    unpublish(name);
    auto process = launch("avahi-publish", {"-s", name, type, QString::number(port)}, busAddress());
    if (!process->waitForStarted(5000) || !waitForLine(*process, "Established under name", 10000)) {
        error_ = QStringLiteral("avahi-publish failed: ") + QString::fromLocal8Bit(output_);
        return false;
    }
    published_[name] = std::move(process);
    return true;
}

void AvahiSandbox::unpublish(const QString& name)
{
    const auto found = published_.find(name);
    if (found == published_.end())
        return;
    stopProcess(found->second);
    published_.erase(found);
}

bool AvahiSandbox::waitForLine(QProcess& process, const QByteArray& line, int milliseconds)
{
    output_.clear();
    QDeadlineTimer deadline(milliseconds);
    while (true) {
        output_ += process.readAll();
        if (output_.contains(line))
            return true;
        if (deadline.hasExpired() || process.state() == QProcess::NotRunning)
            return false;
        process.waitForReadyRead(int(std::max<qint64>(1, deadline.remainingTime())));
    }
}

void AvahiSandbox::stopProcess(std::unique_ptr<QProcess>& process)
{
    if (!process)
        return;
    if (process->state() != QProcess::NotRunning) {
        process->terminate();
        if (!process->waitForFinished(5000)) {
            process->kill();
            process->waitForFinished(5000);
        }
    }
    process.reset();
}

} // namespace orvane
