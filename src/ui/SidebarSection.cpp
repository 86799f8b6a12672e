#include "ui/SidebarSection.h"

#include "ui/SettingBinding.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

namespace orvane {

SidebarSection::SidebarSection(const QString& title, AppSettings& settings, const char* enabledKey,
                               QWidget* parent)
    : QFrame(parent)
{
    dot_ = new StatusDot(this);
    auto* heading = new QLabel(title, this);
    QFont bold = heading->font();
    bold.setBold(true);
    heading->setFont(bold);

    auto* header = new QHBoxLayout;
    header->setSpacing(8);
    header->addWidget(dot_);
    header->addWidget(heading, 1);
    if (enabledKey) {
        auto* onOff = new QCheckBox(tr("On"), this);
        onOff->setToolTip(tr("Turn %1 on or off").arg(title));
        bindSwitch(onOff, settings, enabledKey);
        header->addWidget(onOff);
    }

    rows_ = new QVBoxLayout;
    rows_->setSpacing(4);
    rows_->setContentsMargins(20, 0, 0, 0);

    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(12, 10, 12, 10);
    column->setSpacing(6);
    column->addLayout(header);
    column->addLayout(rows_);
}

QLabel* SidebarSection::addLine(const QString& objectName, bool quiet)
{
    auto* line = new QLabel(this);
    line->setObjectName(objectName);
    line->setWordWrap(true);
    line->setTextInteractionFlags(Qt::TextSelectableByMouse);
    if (quiet) {
        QPalette colours = line->palette();
        const QColor text = colours.color(QPalette::WindowText);
        const QColor back = colours.color(QPalette::Window);
        colours.setColor(QPalette::WindowText,
                         QColor::fromRgbF(0.6f * text.redF() + 0.4f * back.redF(),
                                          0.6f * text.greenF() + 0.4f * back.greenF(),
                                          0.6f * text.blueF() + 0.4f * back.blueF()));
        line->setPalette(colours);
    }
    rows_->addWidget(line);
    return line;
}

void showLine(QLabel* label, const QString& text)
{
    label->setText(text);
    label->setVisible(!text.isEmpty());
}

} // namespace orvane
