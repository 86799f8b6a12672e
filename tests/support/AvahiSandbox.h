#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <map>
#include <memory>

namespace orvane {

// A private Avahi daemon for tests: its own D-Bus system bus on a socket in a temporary
// folder, and the daemon in a network namespace of its own with one veth interface
// (192.0.2.1/24, a documentation address that exists nowhere else), so mDNS never leaves the
// namespace. Needs root (the test suite runs as root in a private namespace). Main thread only.
class AvahiSandbox {
public:
    AvahiSandbox();
    ~AvahiSandbox();

    // Starts the bus, the namespace and the daemon, and points this process's D-Bus system bus
    // (and with it the Avahi client library) at them. False with error() set when it cannot.
    bool start();
    QString error() const { return error_; }

    // The daemon alone stops and starts again (the bus and the namespace stay).
    void stopDaemon();
    bool startDaemon();

    // Publishes a service of `type` under `name` with avahi-publish until unpublish().
    bool publish(const QString& name, const QString& type, int port);
    void unpublish(const QString& name);

    // The address the daemon's interface has.
    static QString hostAddress() { return QStringLiteral("192.0.2.1"); }

private:
    QString busAddress() const; // "unix:path=…"
    bool waitForLine(QProcess& process, const QByteArray& line, int milliseconds);
    void stopProcess(std::unique_ptr<QProcess>& process);

    QTemporaryDir folder_;
    std::unique_ptr<QProcess> bus_;
    std::unique_ptr<QProcess> holder_;
    std::unique_ptr<QProcess> daemon_;
    std::map<QString, std::unique_ptr<QProcess>> published_;
    QString error_;
    QByteArray output_;
};

} // namespace orvane
