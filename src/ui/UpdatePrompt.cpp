#include "ui/UpdatePrompt.h"

#include "app/AppModel.h"
#include "base/Checks.h"

#include <QDesktopServices>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDir>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QProgressDialog>
#include <QPushButton>
#include <QTextBrowser>
#include <QTextDocument>
#include <QUrl>
#include <QVBoxLayout>

#include <algorithm>
#include <climits>

namespace orvane {

UpdatePrompt::UpdatePrompt(AppModel& model, QWidget* window)
    : UpdatePrompt(
          *new UpdateCheck(model.settings(), Clock::system(), UpdateCheck::applicationOptions()),
          window)
{
    ownCheck_.reset(check_);
    check_->startAutomaticChecks();
}

UpdatePrompt::UpdatePrompt(UpdateCheck& check, QWidget* window)
    : QObject(window)
    , check_(&check)
    , window_(window)
    , installer_([](const QString& package) {
        return QDesktopServices::openUrl(QUrl::fromLocalFile(package));
    })
{
    connect(check_, &UpdateCheck::checkFinished, this, &UpdatePrompt::showAnswer);
    connect(check_, &UpdateCheck::downloadProgressed, this, &UpdatePrompt::showProgress);
    connect(check_, &UpdateCheck::downloadFinished, this, &UpdatePrompt::install);
    connect(check_, &UpdateCheck::downloadFailed, this, [this](const QString& message) {
        closeProgress();
        tell(message, true);
    });
}

UpdatePrompt::~UpdatePrompt()
{
    // The dialogs are the window's children; without a window they are ours to close.
    if (!window_)
        for (QWidget* dialog :
             {static_cast<QWidget*>(message_.data()), static_cast<QWidget*>(offer_.data()),
              static_cast<QWidget*>(progress_.data())})
            delete dialog;
}

void UpdatePrompt::checkForUpdates()
{
    assertOnOwnThread(this);
    check_->checkNow(UpdateCheck::Trigger::user);
}

void UpdatePrompt::showAnswer(const UpdateCheck::Answer& answer)
{
    const bool asked = answer.trigger == UpdateCheck::Trigger::user;
    if (progress_) { // a download is under way: that is the answer
        if (asked)
            progress_->raise();
        return;
    }
    switch (answer.kind) {
    case UpdateCheck::Answer::Kind::upToDate:
        if (asked)
            tell(tr("Orvane %1 is the newest version.").arg(check_->options().runningVersion),
                 false);
        return;
    case UpdateCheck::Answer::Kind::failed:
        tell(answer.message, true);
        return;
    case UpdateCheck::Answer::Kind::updateAvailable:
        if (!answer.release)
            return;
        // A check of its own accord stays quiet about a version the user put off, and never
        // replaces an offer still open.
        if (!asked && (answer.release->version == declinedVersion_ || offer_))
            return;
        offer(*answer.release);
        return;
    }
}

void UpdatePrompt::offer(const UpdateRelease& release)
{
    delete offer_.data();
    auto* dialog = new QDialog(window_);
    offer_ = dialog;
    dialog->setObjectName(QStringLiteral("updateOffer"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(tr("Software Update"));

    auto* heading =
        new QLabel(QStringLiteral("<b>%1</b>")
                       .arg(tr("Orvane %1 is available.").arg(release.version.toHtmlEscaped())),
                   dialog);
    auto* detail = new QLabel(tr("You have %1. The download is %2; your package installer asks "
                                 "before anything is installed.")
                                  .arg(check_->options().runningVersion,
                                       QLocale::system().formattedDataSize(release.packageSize)),
                              dialog);
    detail->setWordWrap(true);
    auto* notes = new QTextBrowser(dialog);
    notes->setObjectName(QStringLiteral("updateNotes"));
    notes->setOpenExternalLinks(true);
    if (Qt::mightBeRichText(release.notes))
        notes->setHtml(release.notes);
    else
        notes->setPlainText(release.notes);

    auto* buttons = new QDialogButtonBox(dialog);
    auto* later = buttons->addButton(tr("Not Now"), QDialogButtonBox::RejectRole);
    later->setObjectName(QStringLiteral("notNow"));
    auto* install = buttons->addButton(tr("Download and Install"), QDialogButtonBox::AcceptRole);
    install->setObjectName(QStringLiteral("downloadAndInstall"));
    install->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
    connect(dialog, &QDialog::accepted, this, [this, release] { startDownload(release); });
    connect(dialog, &QDialog::rejected, this,
            [this, version = release.version] { declinedVersion_ = version; });

    auto* column = new QVBoxLayout(dialog);
    column->addWidget(heading);
    column->addWidget(detail);
    column->addWidget(notes, 1);
    column->addWidget(buttons);
    dialog->resize(520, 400);
    dialog->open();
}

void UpdatePrompt::startDownload(const UpdateRelease& release)
{
    closeProgress();
    auto* dialog = new QProgressDialog(window_);
    progress_ = dialog;
    dialog->setObjectName(QStringLiteral("updateProgress"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(tr("Software Update"));
    dialog->setLabelText(tr("Downloading Orvane %1…").arg(release.version));
    dialog->setCancelButtonText(tr("Cancel"));
    dialog->setAutoClose(false);
    dialog->setAutoReset(false);
    dialog->setMinimumDuration(0);
    dialog->setRange(0, 0); // busy until the first bytes say how many there are
    connect(dialog, &QProgressDialog::canceled, check_, &UpdateCheck::cancelDownload);
    dialog->open();
    check_->download(release);
}

void UpdatePrompt::showProgress(qint64 received, qint64 total)
{
    if (!progress_ || total <= 0)
        return;
    // In KiB, so that packages beyond 2 GB still fit the dialog's int range.
    progress_->setRange(0, int(std::min<qint64>(total / 1024, INT_MAX)));
    progress_->setValue(int(std::min<qint64>(received / 1024, INT_MAX)));
}

void UpdatePrompt::install(const QString& package)
{
    closeProgress();
    if (installer_(package))
        return;
    tell(tr("Orvane downloaded the update to “%1”, but couldn't open it in the software "
            "installer. Open that file to install it.")
             .arg(QDir::toNativeSeparators(package)),
         true);
}

void UpdatePrompt::tell(const QString& text, bool isProblem)
{
    delete message_.data();
    auto* box = new QMessageBox(isProblem ? QMessageBox::Warning : QMessageBox::Information,
                                tr("Software Update"), text, QMessageBox::Ok, window_);
    message_ = box;
    box->setObjectName(QStringLiteral("updateMessage"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

void UpdatePrompt::closeProgress()
{
    if (!progress_)
        return;
    QProgressDialog* dialog = progress_;
    progress_ = nullptr;
    dialog->disconnect(this);
    disconnect(dialog, nullptr, check_, nullptr);
    dialog->hide();
    dialog->deleteLater();
}

} // namespace orvane
