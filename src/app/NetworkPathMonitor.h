#pragma once

#include "base/Clock.h"

#include <QObject>
#include <QStringList>

#include <functional>
#include <optional>

namespace orvane {

// Watches the set of network interfaces that are up, by name. The first look only records
// the list; each later change is reported once. Main thread only.
class NetworkPathMonitor : public QObject {
    Q_OBJECT

public:
    static constexpr Seconds kPollInterval{2.0};

    explicit NetworkPathMonitor(Clock& clock = Clock::system(), QObject* parent = nullptr);

    // Looks now, then every kPollInterval.
    void start();
    void stop();
    // Looks at the interfaces now.
    void check();
    // Takes a list as if the system had reported it (sorted, compared by name).
    void update(QStringList names);

    const std::optional<QStringList>& interfaces() const { return interfaces_; }
    // The names of the interfaces that are up now, sorted.
    static QStringList currentInterfaces();

Q_SIGNALS:
    void interfacesChanged(const QStringList& names);

private:
    Timer poll_;
    std::optional<QStringList> interfaces_;
};

} // namespace orvane
