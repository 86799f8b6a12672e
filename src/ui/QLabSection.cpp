#include "ui/SidebarSections.h"

#include "app/AppModel.h"

#include <QLabel>

namespace orvane {

namespace {

StatusDot::Status statusOf(const QLabClient& qlab)
{
    if (!qlab.settings().isEnabled)
        return StatusDot::Status::off;
    switch (qlab.state()) {
    case QLabClient::State::connected:
        return StatusDot::Status::working;
    case QLabClient::State::connecting:
        return StatusDot::Status::trying;
    case QLabClient::State::unreachable:
    case QLabClient::State::noWorkspace:
    case QLabClient::State::passcodeRequired:
        break;
    }
    return StatusDot::Status::needsUser;
}

} // namespace

QLabSection::QLabSection(AppModel& model, QWidget* parent)
    : SidebarSection(tr("QLab"), model.settings(), "qlabEnabled", parent)
    , model_(model)
{
    status_ = addLine(QStringLiteral("qlabStatus"));
    advice_ = addLine(QStringLiteral("qlabAdvice"), true);
    workspace_ = addLine(QStringLiteral("qlabWorkspace"));
    connect(&model_.qlab(), &QLabClient::stateChanged, this, &QLabSection::refresh);
    connect(&model_.qlab(), &QLabClient::workspaceNameChanged, this, &QLabSection::refresh);
    refresh();
}

void QLabSection::refresh()
{
    const QLabClient& qlab = model_.qlab();
    setStatus(statusOf(qlab));
    showLine(status_, qlab.statusText());
    showLine(advice_, qlab.advice());
    const QString workspace = qlab.workspaceNameText();
    showLine(workspace_, workspace.isEmpty() || qlab.state() != QLabClient::State::connected
                             ? QString()
                             : tr("Workspace: %1").arg(workspace));
}

} // namespace orvane
