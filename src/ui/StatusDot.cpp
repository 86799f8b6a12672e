#include "ui/StatusDot.h"

#include <QPainter>

namespace orvane {

namespace {

QColor colourOf(StatusDot::Status status)
{
    switch (status) {
    case StatusDot::Status::working:
        return QColor(0x34, 0xc7, 0x59);
    case StatusDot::Status::trying:
        return QColor(0xff, 0xb3, 0x00);
    case StatusDot::Status::off:
        return QColor(0x9a, 0x9a, 0x9a);
    case StatusDot::Status::needsUser:
        return QColor(0xe5, 0x39, 0x35);
    }
    return {};
}

int urgency(StatusDot::Status status)
{
    switch (status) {
    case StatusDot::Status::needsUser:
        return 3;
    case StatusDot::Status::working:
        return 2;
    case StatusDot::Status::trying:
        return 1;
    case StatusDot::Status::off:
        return 0;
    }
    return 0;
}

QString nameOf(StatusDot::Status status)
{
    switch (status) {
    case StatusDot::Status::working:
        return StatusDot::tr("Working");
    case StatusDot::Status::trying:
        return StatusDot::tr("Trying");
    case StatusDot::Status::off:
        return StatusDot::tr("Off");
    case StatusDot::Status::needsUser:
        return StatusDot::tr("Needs you");
    }
    return {};
}

} // namespace

StatusDot::StatusDot(QWidget* parent)
    : QWidget(parent)
{
    setFixedSize(sizeHint());
    setToolTip(nameOf(status_));
}

void StatusDot::setStatus(Status status)
{
    if (status == status_)
        return;
    status_ = status;
    setToolTip(nameOf(status));
    update();
}

StatusDot::Status StatusDot::combined(Status a, Status b)
{
    return urgency(a) >= urgency(b) ? a : b;
}

void StatusDot::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(colourOf(status_));
    painter.drawEllipse(QRectF(rect()).adjusted(1.5, 1.5, -1.5, -1.5));
}

} // namespace orvane
