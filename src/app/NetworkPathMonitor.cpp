#include "app/NetworkPathMonitor.h"

#include "base/Checks.h"

#include <QNetworkInterface>

namespace orvane {

NetworkPathMonitor::NetworkPathMonitor(Clock& clock, QObject* parent)
    : QObject(parent)
    , poll_(clock)
{
}

void NetworkPathMonitor::start()
{
    assertOnOwnThread(this);
    check();
    poll_.startRepeating(kPollInterval, [this] { check(); });
}

void NetworkPathMonitor::stop()
{
    poll_.stop();
}

void NetworkPathMonitor::check()
{
    update(currentInterfaces());
}

void NetworkPathMonitor::update(QStringList names)
{
    names.sort();
    names.removeDuplicates();
    if (interfaces_ == names)
        return;
    const bool first = !interfaces_.has_value();
    interfaces_ = names;
    if (!first)
        Q_EMIT interfacesChanged(names);
}

QStringList NetworkPathMonitor::currentInterfaces()
{
    QStringList names;
    for (const auto& interface : QNetworkInterface::allInterfaces()) {
        if (interface.flags().testFlag(QNetworkInterface::IsUp))
            names.append(interface.name());
    }
    names.sort();
    return names;
}

} // namespace orvane
