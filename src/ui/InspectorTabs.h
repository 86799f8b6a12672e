#pragma once

#include "app/CueLogEntry.h"
#include "overlay/OverlayContent.h"

#include <QList>
#include <QTimer>
#include <QWidget>

class QFormLayout;
class QLabel;
class QLineEdit;
class QPushButton;
class QTreeWidget;
class QVBoxLayout;

namespace orvane {

class AppModel;

// What the show is doing now: its name, the current cue with a bar for each part, the next and
// previous cue, the custom fields, QLab's running cues and the show timecode. The bars and the
// timecode move a few times a second, only while the tab is on screen.
class ShowTab : public QWidget {
    Q_OBJECT
public:
    static constexpr int kTickMilliseconds = 250;

    explicit ShowTab(AppModel& model, QWidget* parent = nullptr);

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void refresh();
    void tick();

    AppModel& model_;
    OverlayContent content_; // everything shown, whatever the overlay's own switches say
    QTimer ticker_{this};
    QLabel* showName_ = nullptr;
    QLabel* cue_ = nullptr;
    QVBoxLayout* parts_ = nullptr;
    QLabel* nextCue_ = nullptr;
    QLabel* previousCue_ = nullptr;
    QFormLayout* fields_ = nullptr;
    QVBoxLayout* qlabCues_ = nullptr;
    QLabel* noQLabCues_ = nullptr;
    QLabel* timecode_ = nullptr;
};

// The overlay's switches and sliders, the camera label, the watermark, the mirror and the
// microphone gain, each bound both ways to its setting.
class AdjustmentsTab : public QWidget {
    Q_OBJECT
public:
    explicit AdjustmentsTab(AppModel& model, QWidget* parent = nullptr);

private:
    void chooseWatermark();
    void refreshWatermark();

    AppModel& model_;
    QLabel* thumbnail_ = nullptr;
    QPushButton* clear_ = nullptr;
};

// The running recording's cue log, newest at the bottom, and a marker to add to it.
class EventsTab : public QWidget {
    Q_OBJECT
public:
    explicit EventsTab(AppModel& model, QWidget* parent = nullptr);

private:
    void refreshLog();
    void refreshRecording();
    void addMarker();

    AppModel& model_;
    QList<CueLogEntry> shown_;
    QTreeWidget* log_ = nullptr;
    QLabel* notRecording_ = nullptr;
    QLineEdit* markerText_ = nullptr;
    QPushButton* addMarker_ = nullptr;
};

} // namespace orvane
