#pragma once

#include "app/UpdateCheck.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>
#include <memory>

class QDialog;
class QMessageBox;
class QProgressDialog;
class QWidget;

namespace orvane {

class AppModel;

// The update check's side of the window: answers a check the user asked for, offers a newer
// version with its notes, shows the download and hands the verified package to the desktop's
// package installer. Its dialogs are window-modal and never block the event loop, so the show
// goes on behind them. Main thread only.
class UpdatePrompt : public QObject {
    Q_OBJECT

public:
    // The application's: the built-in feed (or the settings file's "OrvaneTestFeedURL") and
    // key, checking by itself once a day while "automaticallyChecksForUpdates" is on. Only the
    // window makes one, so headless mode never checks.
    UpdatePrompt(AppModel& model, QWidget* window);
    // Over a check made elsewhere; it must outlive the prompt.
    UpdatePrompt(UpdateCheck& check, QWidget* window);
    ~UpdatePrompt() override;

    UpdateCheck& check() { return *check_; }

    // "Check for Updates…"
    void checkForUpdates();

    // Opens a verified package; by default with the desktop's handler for it (the package
    // installer). Answers whether that worked.
    using Installer = std::function<bool(const QString& package)>;
    void setInstallerForTesting(Installer installer) { installer_ = std::move(installer); }

private:
    void showAnswer(const UpdateCheck::Answer& answer);
    void offer(const UpdateRelease& release);
    void startDownload(const UpdateRelease& release);
    void showProgress(qint64 received, qint64 total);
    void install(const QString& package);
    void tell(const QString& text, bool isProblem);
    void closeProgress();

    std::unique_ptr<UpdateCheck> ownCheck_;
    UpdateCheck* check_ = nullptr;
    QPointer<QWidget> window_;
    Installer installer_;
    QString declinedVersion_;
    QPointer<QMessageBox> message_;
    QPointer<QDialog> offer_;
    QPointer<QProgressDialog> progress_;
};

} // namespace orvane
