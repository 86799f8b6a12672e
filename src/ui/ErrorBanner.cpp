#include "ui/ErrorBanner.h"

#include "app/AppModel.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>

namespace orvane {

ErrorBanner::ErrorBanner(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    setObjectName(QStringLiteral("errorBanner"));
    setAutoFillBackground(true);
    QPalette colours = palette();
    colours.setColor(QPalette::Window, QColor(0xfd, 0xec, 0xc8));
    colours.setColor(QPalette::WindowText, QColor(0x3a, 0x2a, 0x00));
    setPalette(colours);

    text_ = new QLabel(this);
    text_->setWordWrap(true);
    text_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    auto* dismiss = new QPushButton(tr("Dismiss"), this);
    dismiss->setObjectName(QStringLiteral("dismissError"));
    connect(dismiss, &QPushButton::clicked, this, [this] { model_.dismissError(); });

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(12, 8, 12, 8);
    row->addWidget(text_, 1);
    row->addWidget(dismiss, 0, Qt::AlignTop);

    connect(&model_, &AppModel::errorMessageChanged, this, &ErrorBanner::refresh);
    refresh();
}

void ErrorBanner::refresh()
{
    const auto message = model_.errorMessage();
    text_->setText(message.value_or(QString()));
    setVisible(message.has_value());
}

} // namespace orvane
