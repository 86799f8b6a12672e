#pragma once

#include "base/Clock.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace orvane {

// One QLab machine advertising "_qlab._tcp" on the local network. Any thread.
struct DiscoveredQLab {
    // Where the browser saw the service; resolving it gives a host and port.
    struct Endpoint {
        int interfaceIndex = -1;
        int protocol = -1;
        QString type;
        QString domain;
        friend bool operator==(const Endpoint&, const Endpoint&) = default;
    };

    QString name; // the advertised instance name, such as "Stage Mac 2"
    Endpoint endpoint;
    friend bool operator==(const DiscoveredQLab&, const DiscoveredQLab&) = default;
};

// Lists the QLab machines on the local network through the Avahi daemon, sorted by name as
// people sort them, and resolves a chosen one to an IPv4 host and port. Main thread only.
class QLabBrowser : public QObject {
    Q_OBJECT

public:
    struct Resolved {
        QString host;
        quint16 port = 0;
        friend bool operator==(const Resolved&, const Resolved&) = default;
    };

    static constexpr Seconds kRestartDelay{5};
    static constexpr Seconds kResolveTimeout{4};

    explicit QLabBrowser(Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~QLabBrowser() override;

    // Starts browsing; when the daemon cannot be reached or the browser fails, browsing
    // starts again kRestartDelay later, keeping the last list meanwhile.
    void start();
    void stop();
    bool isBrowsing() const;

    // One entry per name, sorted with digits compared as numbers ("Stage Mac 2" before
    // "Stage Mac 10").
    const std::vector<DiscoveredQLab>& services() const { return services_; }

    // Calls `done` once with the service's IPv4 address and port, or with nothing when it
    // cannot be resolved within kResolveTimeout.
    void resolve(const DiscoveredQLab& service, std::function<void(std::optional<Resolved>)> done);

    // Sorts names as the interface lists them.
    static void sortByName(std::vector<DiscoveredQLab>& services);

signals:
    void servicesChanged();

private:
    struct Avahi;
    friend struct Avahi;
    void publish(std::vector<DiscoveredQLab> services);
    void scheduleRestart();

    Clock& clock_;
    std::unique_ptr<Avahi> avahi_;
    std::vector<DiscoveredQLab> services_;
    Timer restartTask_;
};

} // namespace orvane
