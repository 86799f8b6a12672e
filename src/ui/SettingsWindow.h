#pragma once

#include <QDialog>

class QTabWidget;

namespace orvane {

class AppModel;

// The settings window: one tab each for the cameras, recording, the Eos console, QLab, the
// OSC listener and the outputs. Every control shows its setting as it is now and writes it as
// soon as it is changed; there is nothing to save, only a Close button. Not modal: the owner
// keeps one and calls showTab() each time it is asked for, which brings it to the front.
// Main thread only.
class SettingsWindow : public QDialog {
    Q_OBJECT

public:
    enum class Tab { cameras, recording, eos, qlab, osc, outputs };

    explicit SettingsWindow(AppModel& model, QWidget* parent = nullptr);

    // Shows the window at `tab`, raised above the others.
    void showTab(Tab tab);
    Tab currentTab() const;

private:
    QTabWidget* tabs_ = nullptr;
};

} // namespace orvane
