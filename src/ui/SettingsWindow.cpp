#include "ui/SettingsWindow.h"

#include "app/AppModel.h"
#include "ui/CamerasTab.h"
#include "ui/ConnectionTabs.h"
#include "ui/OutputTabs.h"

#include <QDialogButtonBox>
#include <QPushButton>
#include <QScrollArea>
#include <QTabWidget>
#include <QVBoxLayout>

namespace orvane {

namespace {

// A tab whose content may be taller than the window scrolls rather than squeezes.
QWidget* scrolling(QWidget* content)
{
    auto* area = new QScrollArea;
    area->setWidget(content);
    area->setWidgetResizable(true);
    area->setFrameShape(QFrame::NoFrame);
    return area;
}

} // namespace

SettingsWindow::SettingsWindow(AppModel& model, QWidget* parent)
    : QDialog(parent)
{
    setObjectName(QStringLiteral("settingsWindow"));
    setWindowTitle(tr("Settings"));
    setModal(false);

    // In the order of SettingsWindow::Tab.
    tabs_ = new QTabWidget(this);
    tabs_->setObjectName(QStringLiteral("settingsTabs"));
    tabs_->addTab(scrolling(new CamerasTab(model)), tr("Cameras"));
    tabs_->addTab(scrolling(new RecordingTab(model)), tr("Recording"));
    tabs_->addTab(scrolling(new EosTab(model)), tr("Eos"));
    tabs_->addTab(scrolling(new QLabTab(model)), tr("QLab"));
    tabs_->addTab(new OscTab(model), tr("OSC"));
    tabs_->addTab(scrolling(new OutputsTab(model)), tr("Outputs"));

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    buttons->button(QDialogButtonBox::Close)->setObjectName(QStringLiteral("closeSettings"));
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::close);

    auto* column = new QVBoxLayout(this);
    column->addWidget(tabs_, 1);
    column->addWidget(buttons);
    resize(640, 560);
}

void SettingsWindow::showTab(Tab tab)
{
    tabs_->setCurrentIndex(int(tab));
    show();
    raise();
    activateWindow();
}

SettingsWindow::Tab SettingsWindow::currentTab() const
{
    return Tab(tabs_->currentIndex());
}

} // namespace orvane
