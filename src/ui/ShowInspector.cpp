#include "ui/ShowInspector.h"

#include "ui/InspectorTabs.h"

#include <QScrollArea>

namespace orvane {

ShowInspector::ShowInspector(AppModel& model, QWidget* parent)
    : QTabWidget(parent)
{
    setObjectName(QStringLiteral("showInspector"));
    setDocumentMode(true);
    addTab(new ShowTab(model), tr("Show"));
    auto* adjustments = new QScrollArea;
    adjustments->setWidget(new AdjustmentsTab(model));
    adjustments->setWidgetResizable(true);
    adjustments->setFrameShape(QFrame::NoFrame);
    adjustments->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    addTab(adjustments, tr("Adjustments"));
    addTab(new EventsTab(model), tr("Events"));
    setMinimumWidth(260);
    setMaximumWidth(440);
}

} // namespace orvane
