#include "app/UpdateCheck.h"

#include "app/AppLog.h"
#include "app/Sentence.h"
#include "base/Checks.h"
#include "settings/AppSettings.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QXmlStreamReader>

#include <openssl/evp.h>

#include <algorithm>

namespace orvane {

namespace {

// The XML namespace of Orvane's own elements and attributes in the feed.
constexpr auto kFeedNamespace = QLatin1StringView("https://orvane.app/xml/updates");
constexpr qsizetype kSignatureBytes = 64;
constexpr qsizetype kPublicKeyBytes = 32;

QString couldntCheck(const QString& why)
{
    return QStringLiteral("Orvane couldn't check for updates. ") + sentence(why);
}

QString couldntDownload(const QString& why)
{
    return QStringLiteral("Orvane couldn't download the update. ") + sentence(why);
}

QString couldntSave(const QString& folder, const QString& why)
{
    return QStringLiteral("Orvane couldn't save the update in “%1”. ")
               .arg(QDir::toNativeSeparators(folder)) +
           sentence(why);
}

bool isAllowedScheme(const QUrl& url, bool allowPlainHttp)
{
    const QString scheme = url.scheme().toLower();
    return !url.host().isEmpty() && (scheme == u"https" || (allowPlainHttp && scheme == u"http"));
}

// One item of the feed; the reader stands on its start element and ends on its end element.
std::optional<UpdateRelease> readItem(QXmlStreamReader& xml, const QUrl& feedUrl,
                                      bool allowPlainHttp)
{
    UpdateRelease release;
    QString url;
    QString length;
    QString signature;
    while (xml.readNextStartElement()) {
        const bool ours = xml.namespaceUri() == kFeedNamespace;
        const bool plain = xml.namespaceUri().isEmpty();
        const auto name = xml.name();
        const auto text = [&xml] {
            return xml.readElementText(QXmlStreamReader::IncludeChildElements).trimmed();
        };
        if (ours && name == u"version") {
            release.version = text();
        } else if (plain && name == u"title") {
            release.title = text();
        } else if (plain && name == u"description") {
            release.notes = text();
        } else if (plain && name == u"pubDate") {
            release.published = QDateTime::fromString(text(), Qt::RFC2822Date);
        } else if (plain && name == u"enclosure") {
            const QXmlStreamAttributes attributes = xml.attributes();
            url = attributes.value(QLatin1StringView("url")).toString().trimmed();
            length = attributes.value(QLatin1StringView("length")).toString().trimmed();
            signature = attributes.value(kFeedNamespace, QLatin1StringView("signature"))
                            .toString()
                            .trimmed();
            xml.skipCurrentElement();
        } else {
            xml.skipCurrentElement();
        }
    }
    if (xml.hasError() || !parseVersion(release.version))
        return std::nullopt;
    release.packageUrl = feedUrl.resolved(QUrl(url, QUrl::StrictMode));
    if (url.isEmpty() || !release.packageUrl.isValid() ||
        !isAllowedScheme(release.packageUrl, allowPlainHttp))
        return std::nullopt;
    bool isNumber = false;
    release.packageSize = length.toLongLong(&isNumber);
    if (!isNumber || release.packageSize <= 0)
        return std::nullopt;
    auto decoded = QByteArray::fromBase64Encoding(signature.toLatin1(),
                                                  QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.size() != kSignatureBytes)
        return std::nullopt;
    release.signature = decoded.decoded;
    return release;
}

// The package's file name from its address, when it is a plain one.
QString packageFileName(const UpdateRelease& release)
{
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9][A-Za-z0-9._+~-]*$"));
    const QString name = release.packageUrl.fileName();
    if (plain.match(name).hasMatch())
        return name;
    return QStringLiteral("orvane_%1.deb").arg(release.version);
}

// `name` in `folder`, or "name (2).suffix" and so on when a file of that name exists.
QString unusedPath(const QString& folder, const QString& name)
{
    const QFileInfo info(name);
    const QString suffix = info.suffix().isEmpty() ? QString() : u'.' + info.suffix();
    QString path = folder + u'/' + name;
    for (int number = 2; QFileInfo::exists(path); ++number)
        path =
            folder + u'/' + info.completeBaseName() + QStringLiteral(" (%1)").arg(number) + suffix;
    return path;
}

QNetworkRequest requestFor(const QUrl& url, const QString& version)
{
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setMaximumRedirectsAllowed(UpdateCheck::kMaximumRedirects);
    request.setTransferTimeout(
        int(std::chrono::milliseconds(UpdateCheck::kTransferTimeout).count()));
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Orvane/") + version);
    return request;
}

} // namespace

std::optional<QList<int>> parseVersion(QStringView text)
{
    if (text.isEmpty())
        return std::nullopt;
    QList<int> numbers;
    for (QStringView part : text.split(u'.')) {
        if (part.isEmpty() || part.size() > 9 ||
            !std::all_of(part.begin(), part.end(), [](QChar c) { return c.isDigit(); }))
            return std::nullopt;
        numbers.append(part.toInt());
    }
    return numbers;
}

bool isNewerVersion(QStringView candidate, QStringView running)
{
    auto newer = parseVersion(candidate);
    auto old = parseVersion(running).value_or(QList<int>{});
    if (!newer)
        return false;
    const qsizetype length = std::max(newer->size(), old.size());
    newer->resize(length, 0);
    old.resize(length, 0);
    return *newer > old;
}

std::optional<QList<UpdateRelease>> parseUpdateFeed(const QByteArray& feed, const QUrl& feedUrl,
                                                    bool allowPlainHttp)
{
    QXmlStreamReader xml(feed);
    if (!xml.readNextStartElement() || xml.name() != u"rss" || !xml.namespaceUri().isEmpty())
        return std::nullopt;
    QList<UpdateRelease> releases;
    while (xml.readNextStartElement()) {
        if (xml.name() != u"channel") {
            xml.skipCurrentElement();
            continue;
        }
        while (xml.readNextStartElement()) {
            if (xml.name() != u"item") {
                xml.skipCurrentElement();
                continue;
            }
            if (auto release = readItem(xml, feedUrl, allowPlainHttp))
                releases.append(std::move(*release));
        }
    }
    if (xml.hasError())
        return std::nullopt;
    return releases;
}

bool isSignedBy(QByteArrayView data, const QByteArray& signature, const QByteArray& publicKey)
{
    if (signature.size() != kSignatureBytes || publicKey.size() != kPublicKeyBytes)
        return false;
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr,
                                    reinterpret_cast<const unsigned char*>(publicKey.constData()),
                                    size_t(publicKey.size())),
        &EVP_PKEY_free);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          &EVP_MD_CTX_free);
    if (!key || !context ||
        EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1)
        return false;
    return EVP_DigestVerify(
               context.get(), reinterpret_cast<const unsigned char*>(signature.constData()),
               size_t(signature.size()), reinterpret_cast<const unsigned char*>(data.data()),
               size_t(data.size())) == 1;
}

QUrl UpdateCheck::builtInFeedUrl()
{
    return QUrl(QStringLiteral("https://orvane.app/updates/linux.xml"));
}

QByteArray UpdateCheck::builtInPublicKey()
{
    // The release key's public half; the release manager keeps the private half
    // (docs/updates.md).
    return QByteArray::fromBase64("cI03YZdm67nwOcSqnLRMGUXzXF9ArzrYViQDYjTU7nE=");
}

UpdateCheck::Options UpdateCheck::applicationOptions()
{
    return {QCoreApplication::applicationVersion(), builtInPublicKey(), QString()};
}

UpdateCheck::UpdateCheck(AppSettings& settings, Clock& clock, Options options, QObject* parent)
    : QObject(parent)
    , settings_(settings)
    , options_(std::move(options))
    , automaticTimer_(clock)
{
    if (options_.downloadFolder.isEmpty())
        options_.downloadFolder =
            QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    if (options_.downloadFolder.isEmpty())
        options_.downloadFolder = QDir::homePath();
}

UpdateCheck::~UpdateCheck()
{
    for (QNetworkReply* reply : {feedReply_.data(), downloadReply_.data()})
        if (reply) {
            reply->disconnect(this);
            reply->abort();
        }
    if (partial_)
        partial_->remove();
}

bool UpdateCheck::usesOverride() const
{
    return feedUrl() != builtInFeedUrl();
}

QUrl UpdateCheck::feedUrl() const
{
    const auto stored = settings_.storedValue(QString::fromLatin1(kFeedOverrideKey));
    if (!stored || stored->typeId() != QMetaType::QString)
        return builtInFeedUrl();
    const QUrl url(stored->toString().trimmed(), QUrl::StrictMode);
    if (!url.isValid() || !isAllowedScheme(url, true))
        return builtInFeedUrl();
    return url;
}

void UpdateCheck::checkNow(Trigger trigger)
{
    assertOnOwnThread(this);
    if (feedReply_) {
        if (trigger == Trigger::user)
            feedTrigger_ = Trigger::user;
        return;
    }
    feedTrigger_ = trigger;
    feed_.clear();
    feedTooLarge_ = false;
    feedReply_ = network_.get(requestFor(feedUrl(), options_.runningVersion));
    QNetworkReply* reply = feedReply_;
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] {
        feed_ += reply->read(kMaximumFeedBytes + 1 - feed_.size());
        if (feed_.size() > kMaximumFeedBytes && !feedTooLarge_) {
            feedTooLarge_ = true;
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::finished, this, &UpdateCheck::finishCheck);
}

void UpdateCheck::finishCheck()
{
    QNetworkReply* reply = feedReply_;
    feedReply_ = nullptr;
    if (!reply)
        return;
    reply->deleteLater();
    const Trigger trigger = feedTrigger_;
    if (!feedTooLarge_ && reply->error() == QNetworkReply::NoError)
        feed_ += reply->read(kMaximumFeedBytes + 1 - feed_.size());
    if (feedTooLarge_ || feed_.size() > kMaximumFeedBytes)
        return answer({Answer::Kind::failed, trigger, std::nullopt,
                       couldntCheck(tr("The update feed is larger than Orvane reads"))});
    if (reply->error() != QNetworkReply::NoError)
        return answer(
            {Answer::Kind::failed, trigger, std::nullopt, couldntCheck(reply->errorString())});
    const auto releases = parseUpdateFeed(feed_, reply->url(), usesOverride());
    if (!releases)
        return answer({Answer::Kind::failed, trigger, std::nullopt,
                       couldntCheck(tr("The update feed at “%1” isn't one Orvane can read")
                                        .arg(reply->url().toDisplayString()))});
    std::optional<UpdateRelease> newest;
    for (const UpdateRelease& release : *releases)
        if (isNewerVersion(release.version, newest ? newest->version : options_.runningVersion))
            newest = release;
    if (!newest)
        return answer({Answer::Kind::upToDate, trigger, std::nullopt, QString()});
    answer({Answer::Kind::updateAvailable, trigger, newest, QString()});
}

void UpdateCheck::answer(Answer result)
{
    if (result.kind == Answer::Kind::failed && result.trigger == Trigger::automatic) {
        qCInfo(lcApp, "updates: the automatic check failed: %s", qPrintable(result.message));
        return;
    }
    Q_EMIT checkFinished(result);
}

void UpdateCheck::startAutomaticChecks()
{
    assertOnOwnThread(this);
    if (automaticChecksStarted_)
        return;
    automaticChecksStarted_ = true;
    connect(&settings_, &AppSettings::automaticallyChecksForUpdatesChanged, this, [this] {
        if (settings_.automaticallyChecksForUpdates())
            scheduleAutomaticCheck(kFirstAutomaticCheck);
        else
            automaticTimer_.stop();
    });
    if (settings_.automaticallyChecksForUpdates())
        scheduleAutomaticCheck(kFirstAutomaticCheck);
}

void UpdateCheck::scheduleAutomaticCheck(Seconds delay)
{
    automaticTimer_.start(delay, [this] {
        scheduleAutomaticCheck(kAutomaticCheckInterval);
        checkNow(Trigger::automatic);
    });
}

void UpdateCheck::download(const UpdateRelease& release)
{
    assertOnOwnThread(this);
    if (downloadReply_)
        return;
    const QString& folder = options_.downloadFolder;
    if (!QDir().mkpath(folder))
        return failDownload(
            couldntSave(folder, tr("Check that the folder exists and that you can write to it")));
    downloading_ = release;
    downloadCancelled_ = false;
    downloadTooLarge_ = false;
    const QString name = packageFileName(release);
    partial_ = std::make_unique<QFile>(unusedPath(folder, name + QStringLiteral(".part")));
    if (!partial_->open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        const QString why = partial_->errorString();
        partial_.reset();
        return failDownload(couldntSave(folder, why));
    }
    finalPath_ = name;
    downloadReply_ = network_.get(requestFor(release.packageUrl, options_.runningVersion));
    QNetworkReply* reply = downloadReply_;
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] {
        const QByteArray bytes = reply->readAll();
        if (downloadTooLarge_)
            return;
        if (partial_->size() + bytes.size() > downloading_.packageSize) {
            downloadTooLarge_ = true;
            reply->abort();
        } else if (partial_->write(bytes) != bytes.size()) {
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::downloadProgress, this, [this](qint64 received, qint64 total) {
        Q_EMIT downloadProgressed(received, total > 0 ? total : downloading_.packageSize);
    });
    connect(reply, &QNetworkReply::finished, this, &UpdateCheck::finishDownload);
}

void UpdateCheck::cancelDownload()
{
    assertOnOwnThread(this);
    if (!downloadReply_)
        return;
    downloadCancelled_ = true;
    downloadReply_->abort();
}

void UpdateCheck::finishDownload()
{
    QNetworkReply* reply = downloadReply_;
    downloadReply_ = nullptr;
    if (!reply || !partial_)
        return;
    reply->deleteLater();
    const QString folder = options_.downloadFolder;
    const bool wrote = partial_->error() == QFileDevice::NoError && partial_->flush();
    const QString writeError = partial_->errorString();
    partial_->close();
    if (downloadCancelled_) {
        partial_->remove();
        partial_.reset();
        return;
    }
    if (!wrote)
        return failDownload(couldntSave(folder, writeError));
    if (downloadTooLarge_)
        return failDownload(couldntDownload(tr("It was larger than the update feed said")));
    if (reply->error() != QNetworkReply::NoError)
        return failDownload(couldntDownload(reply->errorString()));

    bool signedByUs = false;
    if (partial_->open(QIODevice::ReadOnly) && partial_->size() > 0) {
        if (uchar* bytes = partial_->map(0, partial_->size())) {
            signedByUs = isSignedBy(QByteArrayView(bytes, partial_->size()), downloading_.signature,
                                    options_.publicKey);
            partial_->unmap(bytes);
        }
        partial_->close();
    }
    if (!signedByUs)
        return failDownload(tr("Orvane deleted the update it downloaded, because it wasn't signed "
                               "by Orvane's developers. Nothing was installed; try again later."));
    const QString path = unusedPath(folder, finalPath_);
    if (!partial_->rename(path))
        return failDownload(couldntSave(folder, partial_->errorString()));
    partial_.reset();
    qCInfo(lcApp, "updates: downloaded and verified %s", qPrintable(path));
    Q_EMIT downloadFinished(path);
}

void UpdateCheck::failDownload(const QString& message)
{
    if (partial_) {
        partial_->close();
        partial_->remove();
        partial_.reset();
    }
    qCInfo(lcApp, "updates: %s", qPrintable(message));
    Q_EMIT downloadFailed(message);
}

} // namespace orvane
