#pragma once

#include <QWidget>

class QComboBox;
class QLabel;

namespace orvane {

class AppModel;

// The settings window's Recording tab: the codec, the cue log beside each movie, and the
// recordings folder with a button that opens it. Main thread only.
class RecordingTab : public QWidget {
    Q_OBJECT

public:
    explicit RecordingTab(AppModel& model, QWidget* parent = nullptr);

private:
    void openFolder();

    AppModel& model_;
    QComboBox* codec_ = nullptr;
};

// The settings window's Outputs tab: the web viewer with its port, its state and the
// addresses to open in a browser; the NDI source with its name, and what keeps NDI from
// running, with where to get it when it is missing. Main thread only.
class OutputsTab : public QWidget {
    Q_OBJECT

public:
    explicit OutputsTab(AppModel& model, QWidget* parent = nullptr);

private:
    void refreshWeb();
    void refreshNDI();

    AppModel& model_;
    QLabel* webState_ = nullptr;
    QLabel* webAddresses_ = nullptr;
    QLabel* ndiStatus_ = nullptr;
};

} // namespace orvane
