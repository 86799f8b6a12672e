#include "ui/SettingsControls.h"

#include <QRegularExpressionValidator>

namespace orvane {

PortField::PortField(QWidget* parent)
    : QLineEdit(parent)
{
    // Up to nine digits: a number too large for a port is still shown to its component.
    setValidator(
        new QRegularExpressionValidator(QRegularExpression(QStringLiteral("[0-9]{1,9}")), this));
    setMaximumWidth(fontMetrics().horizontalAdvance(QStringLiteral("0000000000")));
    connect(this, &QLineEdit::editingFinished, this, [this] {
        if (const auto typed = port(); typed && *typed != shown_) {
            shown_ = *typed;
            Q_EMIT portEdited(*typed);
        }
    });
}

std::optional<int> PortField::port() const
{
    bool isNumber = false;
    const int value = text().toInt(&isNumber);
    if (!isNumber)
        return std::nullopt;
    return value;
}

void PortField::showPort(int port)
{
    shown_ = port;
    const QString text = QString::number(port);
    if (this->text() != text)
        setText(text);
}

void PortField::focusOutEvent(QFocusEvent* event)
{
    QLineEdit::focusOutEvent(event);
    if (!port())
        setText(QString::number(shown_));
}

QLabel* makeStatusLabel(const QString& objectName, QWidget* parent)
{
    auto* label = new QLabel(parent);
    label->setObjectName(objectName);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label->setForegroundRole(QPalette::PlaceholderText);
    label->hide();
    return label;
}

void showStatus(QLabel* label, const QString& text)
{
    label->setText(text);
    label->setVisible(!text.isEmpty());
}

} // namespace orvane
