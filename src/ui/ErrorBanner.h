#pragma once

#include <QWidget>

class QLabel;

namespace orvane {

class AppModel;

// The one message the user must read, across the top of the window until it is replaced or
// dismissed. Hidden while there is none.
class ErrorBanner : public QWidget {
    Q_OBJECT

public:
    explicit ErrorBanner(AppModel& model, QWidget* parent = nullptr);

private:
    void refresh();

    AppModel& model_;
    QLabel* text_ = nullptr;
};

} // namespace orvane
