#pragma once

#include "ui/StatusDot.h"

#include <QFrame>

class QCheckBox;
class QLabel;
class QVBoxLayout;

namespace orvane {

class AppSettings;

// One section of the sidebar: a status dot, a title and, for what can be turned off, a switch
// bound to its setting; below them the section's own rows. Main thread only.
class SidebarSection : public QFrame {
    Q_OBJECT

public:
    // `enabledKey`: the Bool setting that the section's switch turns on and off; none for a
    // section without a switch.
    SidebarSection(const QString& title, AppSettings& settings, const char* enabledKey,
                   QWidget* parent = nullptr);

    StatusDot* dot() const { return dot_; }
    void setStatus(StatusDot::Status status) { dot_->setStatus(status); }
    QVBoxLayout* rows() const { return rows_; }

    // A wrapping line of text named `objectName`, added to the rows; `quiet` greys it.
    QLabel* addLine(const QString& objectName, bool quiet = false);

private:
    StatusDot* dot_ = nullptr;
    QVBoxLayout* rows_ = nullptr;
};

// Shows `text` in `label`, and hides the label while the text is empty.
void showLine(QLabel* label, const QString& text);

} // namespace orvane
