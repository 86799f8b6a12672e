#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <map>
#include <memory>

namespace orvane {

// A private Avahi daemon for tests: its own D-Bus bus on a socket in a temporary folder, and
// the daemon in a network namespace of its own with one veth interface (192.0.2.1/24, a
// documentation address that exists nowhere else), so mDNS never leaves the namespace. Needs
// root (the suite runs as root in a private namespace). Main thread only.
class AvahiSandbox {
public:
    // Starts the bus, the namespace and the daemon, and points this process's D-Bus system bus
    // (and with it the Avahi client library) at them. False with error() set when it cannot.
    bool start();
    QString error() const { return error_; }

    // The daemon alone stops and starts again (the bus and the namespace stay).
    void stopDaemon();
    bool startDaemon();

    // Publishes a service of `type` under `name` with avahi-publish until unpublish().
    bool publish(const QString& name, const QString& type, int port);
    void unpublish(const QString& name) { published_.erase(name); }

    // The address the daemon's interface has.
    static QString hostAddress() { return QStringLiteral("192.0.2.1"); }

private:
    // A process that is terminated (killed if need be) when it goes.
    struct Stop {
        void operator()(QProcess* process) const;
    };
    using Process = std::unique_ptr<QProcess, Stop>;

    // Starts `program` (on the private bus when `onBus`) and waits for `line` in its output;
    // empty with error() set when it does not come.
    Process launch(const QString& program, const QStringList& arguments, bool onBus,
                   const QByteArray& line, int milliseconds);

    QTemporaryDir folder_; // members go in reverse: services, daemon, holder, bus, folder
    Process bus_;
    Process holder_;
    Process daemon_;
    std::map<QString, Process> published_;
    QString error_;
};

} // namespace orvane
