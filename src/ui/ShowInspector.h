#pragma once

#include <QTabWidget>

namespace orvane {

class AppModel;

// The column on the window's right, in three tabs: "Show" (what the show is doing now),
// "Adjustments" (what the overlay shows and how, the watermark, the camera and microphone) and
// "Events" (the recording's cue log and markers). Main thread only.
class ShowInspector : public QTabWidget {
    Q_OBJECT

public:
    explicit ShowInspector(AppModel& model, QWidget* parent = nullptr);

    QSize sizeHint() const override { return {300, 600}; }
};

} // namespace orvane
