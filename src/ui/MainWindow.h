#pragma once

#include <QActionGroup>
#include <QElapsedTimer>
#include <QMainWindow>
#include <QPointer>
#include <QTimer>

class QAction;
class QLabel;
class QMenu;
class QSplitter;
class QStackedWidget;

namespace orvane {

class AppModel;
class CameraGrid;

// Orvane's window: the menus and the toolbar over the model's commands, the error banner, and
// a row of three places: the sidebar, the cameras (or the layout editor while it is open)
// and the show inspector. Closing it finishes a running recording first. Main thread only.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    explicit MainWindow(AppModel& model, QWidget* parent = nullptr);

    // The window's places for the panels built elsewhere; the window takes each widget over
    // (a later one replaces and deletes the earlier).
    void setSidebar(QWidget* sidebar);
    void setInspector(QWidget* inspector);
    void setLayoutEditor(QWidget* editor);

    CameraGrid* cameraGrid() const { return grid_; }
    // Puts the window where it was left, its columns as they were divided (once the panels
    // are in their places). A state that does not read leaves the window as it is.
    void restoreWindowState();

Q_SIGNALS:
    void settingsRequested();
    void checkForUpdatesRequested();
    // The window closed, with every movie finished (or left to the next start to finish).
    void closed();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void buildMenus();
    void buildToolBar();
    void refreshRecording();
    void refreshElapsed();
    void refreshDemo();
    void refreshCentre();
    void rebuildLayoutMenu();
    void refreshLayoutChecks();
    void replacePlace(int index, QWidget* widget);
    void finishThenClose();
    void showAbout();
    void saveWindowState();

    AppModel& model_;
    QSplitter* splitter_ = nullptr;
    QStackedWidget* centre_ = nullptr;
    CameraGrid* grid_ = nullptr;
    QPointer<QWidget> layoutEditor_;

    QAction* record_ = nullptr;
    QAction* marker_ = nullptr;
    QAction* showRecordings_ = nullptr;
    QAction* writesCueLog_ = nullptr;
    QAction* overlay_ = nullptr;
    QAction* editLayout_ = nullptr;
    QAction* demo_ = nullptr;
    QAction* elapsedAction_ = nullptr;
    QMenu* layoutMenu_ = nullptr;
    QPointer<QActionGroup> layoutChoices_;
    QLabel* elapsed_ = nullptr;
    QTimer elapsedTimer_{this};

    // Closing: the recording is being finished; then the window may close.
    bool finishing_ = false;
    bool mayClose_ = false;
    QTimer finishPoll_{this};
    QElapsedTimer sinceStopped_;
};

} // namespace orvane
