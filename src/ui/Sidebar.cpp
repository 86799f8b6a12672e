#include "ui/Sidebar.h"

#include "app/AppModel.h"
#include "ui/SidebarSections.h"

#include <QFrame>
#include <QScrollArea>
#include <QVBoxLayout>

namespace orvane {

Sidebar::Sidebar(AppModel& model, QWidget* parent)
    : QWidget(parent)
{
    setObjectName(QStringLiteral("sidebar"));
    auto* column = new QWidget;
    auto* sections = new QVBoxLayout(column);
    sections->setContentsMargins(0, 0, 0, 0);
    sections->setSpacing(0);
    auto* devices = new DevicesSection(model);
    connect(devices, &DevicesSection::settingsRequested, this, &Sidebar::settingsRequested);
    const QList<SidebarSection*> all = {new EosSection(model), new QLabSection(model),
                                        new ListenerSection(model), new OutputsSection(model),
                                        devices};
    for (SidebarSection* section : all) {
        if (section != all.front()) {
            auto* rule = new QFrame;
            rule->setFrameShape(QFrame::HLine);
            rule->setFrameShadow(QFrame::Sunken);
            sections->addWidget(rule);
        }
        sections->addWidget(section);
    }
    sections->addStretch(1);

    auto* scroll = new QScrollArea(this);
    scroll->setWidget(column);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(scroll);
    // A narrow column: the cameras take what the window has beyond it.
    setMinimumWidth(220);
    setMaximumWidth(340);
}

} // namespace orvane
