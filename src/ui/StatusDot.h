#pragma once

#include <QWidget>

namespace orvane {

// The small coloured dot before a sidebar section's title: green while the thing works, amber
// while it tries, grey while it is off, red when it needs the user. Main thread only.
class StatusDot : public QWidget {
    Q_OBJECT

public:
    enum class Status { working, trying, off, needsUser };
    Q_ENUM(Status)

    explicit StatusDot(QWidget* parent = nullptr);

    Status status() const { return status_; }
    void setStatus(Status status);

    // The most pressing of two: the user's attention, then work, then trying, then off.
    static Status combined(Status a, Status b);

    QSize sizeHint() const override { return {12, 12}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    Status status_ = Status::off;
};

} // namespace orvane
