#pragma once

#include <QString>
#include <QWidget>

class QComboBox;
class QLabel;
class QListWidget;
class QTableWidget;

namespace orvane {

class AppModel;
struct WatchedAddress;

// The settings window's Eos tab: the link on or off, automatic connection, the console's
// address, the OSC version (which sets port and framing together) or a port of its own, and
// the link's status and advice as they change. Main thread only.
class EosTab : public QWidget {
    Q_OBJECT

public:
    explicit EosTab(AppModel& model, QWidget* parent = nullptr);

private:
    void refreshVersion();
    void refreshStatus();

    AppModel& model_;
    QComboBox* version_ = nullptr;
    QLabel* status_ = nullptr;
    QLabel* advice_ = nullptr;
};

// The settings window's QLab tab: the QLab machines found on the network (browsing starts the
// first time the tab is shown; choosing one connects to it), the host, port and passcode, the
// workspace to join, and the link's status and advice. Main thread only.
class QLabTab : public QWidget {
    Q_OBJECT

public:
    explicit QLabTab(AppModel& model, QWidget* parent = nullptr);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void refreshHosts();
    void refreshWorkspaces();
    void refreshStatus();

    AppModel& model_;
    QListWidget* hosts_ = nullptr;
    QLabel* looking_ = nullptr;
    QComboBox* workspace_ = nullptr;
    QLabel* status_ = nullptr;
    QLabel* advice_ = nullptr;
};

// The settings window's OSC tab: the listener on or off, its port and what it is doing, and
// the watched addresses, each with the label it shows under on the overlay. An address that
// is no OSC address is kept and marked, so that nothing typed is lost. Main thread only.
class OscTab : public QWidget {
    Q_OBJECT

public:
    explicit OscTab(AppModel& model, QWidget* parent = nullptr);

    // Whether `address` can be watched: "/" and at least one more character, no blanks, and
    // a "*" only at its end.
    static bool isWatchableAddress(const QString& address);

private:
    void refreshWatched();
    QList<WatchedAddress> watchedInTable() const;
    void writeWatched();
    void addWatched();
    void removeWatched();

    AppModel& model_;
    QLabel* state_ = nullptr;
    QTableWidget* watched_ = nullptr;
};

} // namespace orvane
