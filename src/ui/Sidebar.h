#pragma once

#include <QWidget>

namespace orvane {

class AppModel;

// The narrow column on the window's left: one section each for the Eos console, QLab, the OSC
// listener, the outputs and the devices, each with a dot that says at a glance whether it
// works (green), tries (amber), is off (grey) or needs the user (red). Scrolls when the window
// is short. Main thread only.
class Sidebar : public QWidget {
    Q_OBJECT

public:
    explicit Sidebar(AppModel& model, QWidget* parent = nullptr);

    QSize sizeHint() const override { return {260, 600}; }

Q_SIGNALS:
    // The user asked to choose the cameras: the settings window's camera tab.
    void settingsRequested();
};

} // namespace orvane
