#pragma once

#include "base/Clock.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <memory>
#include <optional>

class QFile;

namespace orvane {

class AppSettings;

// One release of Orvane as an item of the update feed describes it (docs/updates.md).
struct UpdateRelease {
    QString version;
    QString title;
    QString notes;
    QDateTime published;
    QUrl packageUrl;
    qint64 packageSize = 0;
    QByteArray signature; // Ed25519, of the package's bytes
    friend bool operator==(const UpdateRelease&, const UpdateRelease&) = default;
};

// The numbers of a dotted version such as "1.10.2"; nothing when `text` is not one.
std::optional<QList<int>> parseVersion(QStringView text);
// Whether `candidate` comes after `running`, number by number ("1.10" after "1.9"; "1.2" and
// "1.2.0" are the same). A text that is no version comes after nothing.
bool isNewerVersion(QStringView candidate, QStringView running);
// The releases of an update feed, in document order; items that lack a part or hold one that
// is malformed are left out. Packages must be on https, or also on http when `allowPlainHttp`;
// relative addresses are taken from `feedUrl`. Nothing when `feed` is no RSS document.
std::optional<QList<UpdateRelease>> parseUpdateFeed(const QByteArray& feed, const QUrl& feedUrl,
                                                    bool allowPlainHttp);
// Whether `signature` is the Ed25519 signature of `data` by `publicKey` (32 bytes).
bool isSignedBy(QByteArrayView data, const QByteArray& signature, const QByteArray& publicKey);

// Looks for a newer Orvane in the update feed and, when asked, downloads one into the
// Downloads folder and keeps it only if Orvane's release key signed it. It installs nothing:
// the window hands a verified package to the desktop's installer once the user agrees.
// Checks the user asks for always answer; automatic ones, once a day while the setting is
// on, say nothing when they fail (a show computer is often offline). Main thread only.
class UpdateCheck : public QObject {
    Q_OBJECT

public:
    enum class Trigger { automatic, user };

    // What a check found.
    struct Answer {
        enum class Kind { upToDate, updateAvailable, failed };
        Kind kind = Kind::upToDate;
        Trigger trigger = Trigger::user;
        std::optional<UpdateRelease> release; // updateAvailable: the newest one
        QString message;                      // failed: the sentence to show
    };

    struct Options {
        QString runningVersion;
        QByteArray publicKey;   // the raw 32-byte Ed25519 key that signs releases
        QString downloadFolder; // empty: the user's Downloads folder
    };

    // The settings key that replaces the built-in feed address (it may be plain http).
    static constexpr const char* kFeedOverrideKey = "OrvaneTestFeedURL";
    static constexpr Seconds kFirstAutomaticCheck{60};
    static constexpr Seconds kAutomaticCheckInterval{24 * 60 * 60};
    static constexpr qint64 kMaximumFeedBytes = 1024 * 1024;
    static constexpr int kMaximumRedirects = 5;
    static constexpr std::chrono::seconds kTransferTimeout{30}; // without a byte arriving

    static QUrl builtInFeedUrl();
    static QByteArray builtInPublicKey();
    // The application's version (as main() sets it), the built-in key and the user's
    // Downloads folder.
    static Options applicationOptions();

    UpdateCheck(AppSettings& settings, Clock& clock, Options options, QObject* parent = nullptr);
    ~UpdateCheck() override;

    const Options& options() const { return options_; }
    // The store's "OrvaneTestFeedURL" when it holds an http or https address, else the
    // built-in one.
    QUrl feedUrl() const;

    // Fetches the feed and answers with checkFinished. A check asked for while one runs joins
    // it (and makes it answer when the user asked).
    void checkNow(Trigger trigger);
    bool isChecking() const { return feedReply_ != nullptr; }
    // The first automatic check a minute from now, then one a day, while
    // "automaticallyChecksForUpdates" is on.
    void startAutomaticChecks();

    // Downloads the release's package; ends with downloadFinished or downloadFailed, or with
    // neither when cancelled.
    void download(const UpdateRelease& release);
    void cancelDownload();
    bool isDownloading() const { return downloadReply_ != nullptr; }

Q_SIGNALS:
    // Every answer except the failures of automatic checks.
    void checkFinished(const orvane::UpdateCheck::Answer& answer);
    void downloadProgressed(qint64 received, qint64 total);
    // The package is in `path`, and its signature is good.
    void downloadFinished(const QString& path);
    void downloadFailed(const QString& message);

private:
    bool usesOverride() const;
    void scheduleAutomaticCheck(Seconds delay);
    void finishCheck();
    void answer(Answer result);
    void finishDownload();
    void failDownload(const QString& message);

    AppSettings& settings_;
    Options options_;
    QNetworkAccessManager network_{this};
    Timer automaticTimer_;
    bool automaticChecksStarted_ = false;

    QPointer<QNetworkReply> feedReply_;
    Trigger feedTrigger_ = Trigger::automatic;
    QByteArray feed_;
    bool feedTooLarge_ = false;

    QPointer<QNetworkReply> downloadReply_;
    UpdateRelease downloading_;
    std::unique_ptr<QFile> partial_;
    QString finalPath_;
    bool downloadTooLarge_ = false;
    bool downloadCancelled_ = false;
};

} // namespace orvane

Q_DECLARE_METATYPE(orvane::UpdateCheck::Answer)
