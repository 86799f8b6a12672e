// The update check against a real HTTP server on loopback, with a release key made here: which
// release a feed offers and the sentence when there is none to read, a package downloaded
// through the prompt kept only when its signature holds, and the daily check failing quietly.

#include "base/ManualClock.h"
#include "settings/AppSettings.h"
#include "ui/UpdatePrompt.h"

#include <QAbstractButton>
#include <QMessageBox>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <openssl/evp.h>

using namespace orvane;
using Kind = UpdateCheck::Answer::Kind;
Q_DECLARE_METATYPE(Kind)

class UpdatesTest : public QObject {
    Q_OBJECT

    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_{
        EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), &EVP_PKEY_free};
    QTcpServer server_;
    QMap<QByteArray, QByteArray> files_; // what the server answers, by path
    std::optional<QTemporaryDir> dir_;
    ManualClock clock_;
    std::unique_ptr<AppSettings> settings_;
    std::unique_ptr<UpdateCheck> check_;

    // A feed item for `version`, its package served beside the feed and signed with our key.
    QByteArray item(const QString& version, QByteArray signature = {})
    {
        const QByteArray package = "orvane_" + version.toUtf8(), path = "/" + package + ".deb";
        files_[path] = package;
        if (signature.isEmpty()) {
            std::size_t length = 64;
            signature.resize(64);
            const auto context = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>(
                EVP_MD_CTX_new(), &EVP_MD_CTX_free);
            EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get());
            EVP_DigestSign(context.get(), reinterpret_cast<uchar*>(signature.data()), &length,
                           reinterpret_cast<const uchar*>(package.data()),
                           std::size_t(package.size()));
        }
        return QStringLiteral(
                   "<item><orvane:version>%1</orvane:version><description>Notes</description>"
                   "<enclosure url=\"%2\" length=\"%3\" orvane:signature=\"%4\"/></item>")
            .arg(version, path, QString::number(package.size()), signature.toBase64())
            .toUtf8();
    }
    QString served(const QByteArray& items)
    {
        const QByteArray path = "/feed" + QByteArray::number(files_.size()) + ".xml";
        files_[path] = "<rss version=\"2.0\" xmlns:orvane=\"https://orvane.app/xml/updates\">"
                       "<channel>" +
                       items + "</channel></rss>";
        return QStringLiteral("http://127.0.0.1:%1%2").arg(server_.serverPort()).arg(path);
    }
    // A check whose settings file points it to `feed`.
    void open(const QString& feed)
    {
        QFile file(dir_->filePath("settings.json"));
        QVERIFY(file.open(QIODevice::WriteOnly) &&
                file.write("{\"OrvaneTestFeedURL\": \"" + feed.toUtf8() + "\"}"));
        file.close();
        settings_ = std::make_unique<AppSettings>(
            AppSettings::Location{file.fileName(), dir_->filePath("support")});
        QByteArray publicKey(32, '\0');
        std::size_t length = 32;
        EVP_PKEY_get_raw_public_key(key_.get(), reinterpret_cast<uchar*>(publicKey.data()),
                                    &length);
        check_ = std::make_unique<UpdateCheck>(
            *settings_, clock_,
            UpdateCheck::Options{"1.0.0", publicKey, dir_->filePath("Downloads")});
        QCOMPARE(check_->feedUrl(), QUrl(feed));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(key_ && server_.listen(QHostAddress::LocalHost));
        connect(&server_, &QTcpServer::newConnection, this, [this] {
            QTcpSocket* socket = server_.nextPendingConnection();
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                if (!socket->peek(socket->bytesAvailable()).contains("\r\n\r\n"))
                    return;
                const QByteArray body = files_.value(socket->readAll().split(' ').value(1));
                socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " +
                              QByteArray::number(body.size()) + "\r\n\r\n" + body);
                socket->disconnectFromHost();
            });
        });
    }
    void init() { dir_.emplace(); }

    void answersTheCheck_data()
    {
        QTest::addColumn<QString>("feed");
        QTest::addColumn<Kind>("kind");
        QTest::addColumn<QString>("expected"); // the version offered, or the sentence's start
        QTest::newRow("the newest newer, malformed items skipped")
            << served(item("0.9") + item("1.9.0") + item("1.10") + item("1.x") +
                      item("2.0", "short") + "<item><orvane:version>3</orvane:version></item>")
            << Kind::updateAvailable << "1.10";
        QTest::newRow("up to date") << served(item("0.9") + item("1.0")) << Kind::upToDate << "";
        QTest::newRow("a damaged feed") << served("<item>cut short") << Kind::failed
                                        << "Orvane couldn't check for updates. The update feed at";
        QTest::newRow("unreachable")
            << QStringLiteral("http://127.0.0.1:1/feed.xml") << Kind::failed
            << "Orvane couldn't check for updates. Connection refused.";
    }
    void answersTheCheck()
    {
        QFETCH(QString, feed);
        QFETCH(Kind, kind);
        QFETCH(QString, expected);
        open(feed);
        QSignalSpy answers(check_.get(), &UpdateCheck::checkFinished);
        check_->checkNow(UpdateCheck::Trigger::user);
        QVERIFY(answers.wait(5000));
        const auto answer = answers.at(0).at(0).value<UpdateCheck::Answer>();
        QCOMPARE(answer.kind, kind);
        QCOMPARE((answer.release ? answer.release->version : answer.message).left(expected.size()),
                 expected);
    }

    void keepsOnlySignedPackages_data()
    {
        QTest::addColumn<bool>("changed");
        QTest::newRow("as signed") << false;
        QTest::newRow("bytes changed on the way") << true;
    }
    void keepsOnlySignedPackages()
    {
        QFETCH(bool, changed);
        open(served(item("1.1")));
        const QByteArray package = files_["/orvane_1.1.deb"];
        if (changed)
            files_["/orvane_1.1.deb"][0] = 'X';
        QWidget window;
        UpdatePrompt prompt(*check_, &window);
        QStringList opened;
        prompt.setInstallerForTesting(
            [&opened](const QString& path) { return (opened << path, true); });
        prompt.checkForUpdates(); // as the user does, then "Download and Install"
        QTRY_VERIFY(window.findChild<QAbstractButton*>("downloadAndInstall"));
        window.findChild<QAbstractButton*>("downloadAndInstall")->click();
        QTRY_VERIFY(opened.size() + window.findChildren<QMessageBox*>("updateMessage").size() == 1);
        const QStringList kept = QDir(dir_->filePath("Downloads")).entryList(QDir::Files);
        QFile file(dir_->filePath("Downloads/orvane_1.1.deb"));
        QCOMPARE(kept, changed ? QStringList() : QStringList{file.fileName().section('/', -1)});
        QCOMPARE(opened, changed ? QStringList() : QStringList{file.fileName()});
        QVERIFY(changed ? window.findChild<QMessageBox*>()->text().contains(
                              "wasn't signed by Orvane's developers")
                        : file.open(QIODevice::ReadOnly) && file.readAll() == package);
    }

    void checksDailyAndFailsQuietly()
    {
        open(QStringLiteral("http://127.0.0.1:1/feed.xml")); // nothing listens there
        QSignalSpy answers(check_.get(), &UpdateCheck::checkFinished);
        check_->startAutomaticChecks();
        for (double wait : {59.0, 86399.0}) { // a minute after start, then once a day
            clock_.advance(wait);
            QVERIFY(!check_->isChecking());
            clock_.advance(1);
            QVERIFY(check_->isChecking());
            QTRY_VERIFY(!check_->isChecking());
        }
        settings_->setAutomaticallyChecksForUpdates(false);
        clock_.advance(3 * 86400);
        QVERIFY(!check_->isChecking());
        QCOMPARE(answers.count(), 0);
    }
};

QTEST_MAIN(UpdatesTest)
#include "UpdatesTest.moc"
