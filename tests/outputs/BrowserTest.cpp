// What a person sees: headless Chromium opens the page of `orvane serve` (the test pattern
// with the demo show), the picture moves, the button and full screen work, and after Orvane
// restarts the page picks the stream up again by itself.

#include <QElapsedTimer>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <optional>

namespace {

// Headless Chromium driven over its DevTools pipe (it reads commands on descriptor 3 and
// answers on 4), with a fresh profile. Each call blocks until its answer, up to 15 s.
class Chromium {
public:
    ~Chromium()
    {
        ::close(toBrowser_);
        ::close(fromBrowser_);
        process_.terminate();
        if (!process_.waitForFinished(5000))
            process_.kill();
        process_.waitForFinished(5000);
    }

    bool start(int width, int height)
    {
        int commands[2], answers[2];
        if (::pipe2(commands, O_CLOEXEC) != 0 || ::pipe2(answers, O_CLOEXEC) != 0)
            return false;
        process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process_.setStandardOutputFile(QProcess::nullDevice());
        process_.setChildProcessModifier([reads = commands[0], writes = answers[1]] {
            // Moved out of the way first, in case either already is 3 or 4.
            ::dup2(::fcntl(reads, F_DUPFD, 10), 3);
            ::dup2(::fcntl(writes, F_DUPFD, 10), 4);
        });
        process_.start("chromium",
                       {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                        "--no-first-run", "--disable-background-networking",
                        "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage",
                        "--hide-scrollbars", "--remote-debugging-pipe",
                        QString("--window-size=%1,%2").arg(width).arg(height),
                        "--user-data-dir=" + profile_.path(), "about:blank"});
        ::close(commands[0]);
        ::close(answers[1]);
        toBrowser_ = commands[1];
        fromBrowser_ = answers[0];
        error = process_.waitForStarted(10000) ? QString() : process_.errorString();
        return error.isEmpty() && call("Browser.getVersion", {});
    }

    // One DevTools call: the "result" object, or nothing (with `error`).
    std::optional<QJsonObject> call(const QString& method, const QJsonObject& params,
                                    const QString& session = {})
    {
        const int id = nextId_++;
        QJsonObject message{{"id", id}, {"method", method}, {"params", params}};
        if (!session.isEmpty())
            message.insert("sessionId", session);
        const QByteArray bytes = QJsonDocument(message).toJson(QJsonDocument::Compact) + '\0';
        for (qsizetype at = 0; at < bytes.size();) {
            const ssize_t written =
                ::write(toBrowser_, bytes.data() + at, size_t(bytes.size() - at));
            if (written <= 0)
                return fail("the browser's pipe closed");
            at += written;
        }
        QElapsedTimer clock;
        clock.start();
        for (;;) {
            for (qsizetype end; (end = pending_.indexOf('\0')) >= 0;) {
                const QJsonObject answer = QJsonDocument::fromJson(pending_.first(end)).object();
                pending_.remove(0, end + 1);
                if (answer["id"].toInt() != id)
                    continue; // an event, or an answer nobody waits for
                if (answer.contains("error"))
                    return fail(method + ": " + QJsonDocument(answer["error"].toObject()).toJson());
                return answer["result"].toObject();
            }
            pollfd wait{fromBrowser_, POLLIN, 0};
            char buffer[65536];
            const ssize_t count =
                clock.elapsed() < 15000 && ::poll(&wait, 1, 15000 - int(clock.elapsed())) > 0
                    ? ::read(fromBrowser_, buffer, sizeof buffer)
                    : 0;
            if (count <= 0)
                return fail(method + ": no answer");
            pending_.append(buffer, count);
        }
    }

    // Opens `url` in a new tab; returns the tab's session, or an empty text.
    QString open(const QString& url)
    {
        const auto target = call("Target.createTarget", {{"url", url}});
        const auto attached = target
                                  ? call("Target.attachToTarget",
                                         {{"targetId", (*target)["targetId"]}, {"flatten", true}})
                                  : std::nullopt;
        return attached ? (*attached)["sessionId"].toString() : QString();
    }

    QImage screenshot(const QString& session)
    {
        const auto result = call("Page.captureScreenshot", {{"format", "png"}}, session);
        return result ? QImage::fromData(
                            QByteArray::fromBase64((*result)["data"].toString().toLatin1()))
                      : QImage();
    }

    QString error;

private:
    std::optional<QJsonObject> fail(const QString& why)
    {
        error = why;
        return std::nullopt;
    }

    QTemporaryDir profile_;
    QProcess process_;
    int toBrowser_ = -1;
    int fromBrowser_ = -1;
    int nextId_ = 1;
    QByteArray pending_;
};

int freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

bool startOrvane(QProcess& orvane, int port)
{
    orvane.setProcessChannelMode(QProcess::MergedChannels);
    orvane.start(qEnvironmentVariable("ORVANE_EXECUTABLE"),
                 {"serve", "--no-ndi", "--size", "1280x720", "--port", QString::number(port)});
    return QTest::qWaitFor(
        [&] { return orvane.readAll().contains("web viewer: listening on port"); }, 15000);
}

// Whether a clear share of the page changes within 0.4 s: the test pattern's bars drift and its
// box moves, far more than the clock's digits.
bool pictureMoves(Chromium& browser, const QString& session)
{
    const QImage a = browser.screenshot(session);
    QTest::qWait(400);
    const QImage b = browser.screenshot(session);
    if (a.isNull() || a.size() != b.size())
        return false;
    qint64 changed = 0;
    for (int y = 0; y < a.height(); y += 2) {
        for (int x = 0; x < a.width(); x += 2)
            changed += qAbs(qGray(a.pixel(x, y)) - qGray(b.pixel(x, y))) > 24;
    }
    const double share = double(changed) / (double(a.width() / 2) * double(a.height() / 2));
    qInfo("%.2f %% of the page changed", share * 100);
    return share > 0.02;
}

} // namespace

class BrowserTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void showsAMovingPictureAndComesBack();
};

void BrowserTest::showsAMovingPictureAndComesBack()
{
    const int port = freePort();
    QProcess orvane;
    QVERIFY(startOrvane(orvane, port));
    Chromium browser;
    QVERIFY2(browser.start(1280, 720), qPrintable(browser.error));
    const QString session = browser.open(QStringLiteral("http://127.0.0.1:%1/").arg(port));
    QVERIFY2(!session.isEmpty(), qPrintable(browser.error));
    // `gesture`: run as if the person had clicked, which full screen requires.
    const auto js = [&](const QString& expression, bool gesture = false) {
        const auto result = browser.call(
            "Runtime.evaluate",
            {{"expression", expression}, {"returnByValue", true}, {"userGesture", gesture}},
            session);
        return result ? result->value("result").toObject().value("value").toVariant() : QVariant();
    };

    QTRY_COMPARE_WITH_TIMEOUT(js("video.naturalWidth").toInt(), 1280, 15000);
    // The words a person reads, and the button 16 px from the bottom right corner.
    QCOMPARE(js("[document.title, fullscreen.textContent, video.alt, "
                "getComputedStyle(video).objectFit, innerWidth - "
                "fullscreen.getBoundingClientRect().right, innerHeight - "
                "fullscreen.getBoundingClientRect().bottom].join('|')")
                 .toString(),
             "Orvane|Full Screen|Live picture from Orvane|contain|16|16");
    QVERIFY(pictureMoves(browser, session));

    // The button fades out after 2.5 s without the mouse, and a move brings it back.
    QTRY_COMPARE_WITH_TIMEOUT(js("document.body.className").toString(), "idle", 5000);
    QCOMPARE(js("document.dispatchEvent(new MouseEvent('mousemove')), document.body.className")
                 .toString(),
             "");
    QTRY_COMPARE_WITH_TIMEOUT(js("document.body.className").toString(), "idle", 5000);

    // The button, and a double click on the picture, put the page into full screen, where the
    // button hides itself.
    const QString isFullScreen = "document.fullscreenElement === document.documentElement";
    js("fullscreen.click()", true);
    QTRY_VERIFY(js(isFullScreen).toBool());
    QCOMPARE(js("getComputedStyle(fullscreen).display").toString(), "none");
    js("document.exitFullscreen()");
    QTRY_VERIFY(js("document.fullscreenElement === null").toBool());
    js("video.dispatchEvent(new MouseEvent('dblclick', {bubbles: true}))", true);
    QTRY_VERIFY(js(isFullScreen).toBool());

    // Orvane goes away and comes back on the same port: the page asks again by itself.
    orvane.terminate();
    QVERIFY(orvane.waitForFinished(10000));
    QProcess again;
    QVERIFY(startOrvane(again, port));
    QVERIFY(QTest::qWaitFor([&] { return pictureMoves(browser, session); }, 20000));
    const QString source = js("video.src").toString();
    QVERIFY2(source.contains(QRegularExpression("/stream\\.mjpg\\?\\d{10,}$")), qPrintable(source));
    again.terminate();
    QVERIFY(again.waitForFinished(10000));
}

QTEST_GUILESS_MAIN(BrowserTest)
#include "BrowserTest.moc"
