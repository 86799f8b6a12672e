#include "qlab/QLabBrowser.h"

#include <QCollator>
#include <QLocale>

#include <algorithm>

namespace orvane {

void QLabBrowser::sortByName(std::vector<DiscoveredQLab>& services)
{
    QLocale locale = QLocale::system();
    // The C locale compares code points only; people still expect "2" before "10".
    if (locale.language() == QLocale::C)
        locale = QLocale(QLocale::English, QLocale::UnitedStates);
    QCollator collator(locale);
    collator.setNumericMode(true);
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(services.begin(), services.end(),
                     [&](const DiscoveredQLab& a, const DiscoveredQLab& b) {
                         return collator.compare(a.name, b.name) < 0;
                     });
}

void QLabBrowser::publish(std::vector<DiscoveredQLab> services)
{
    sortByName(services);
    if (services == services_)
        return;
    services_ = std::move(services);
    emit servicesChanged();
}

} // namespace orvane
