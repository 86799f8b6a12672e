#include "ChromiumDriver.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QProcess>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

ChromiumDriver::ChromiumDriver() = default;

ChromiumDriver::~ChromiumDriver()
{
    if (toBrowser_ >= 0)
        ::close(toBrowser_);
    if (fromBrowser_ >= 0)
        ::close(fromBrowser_);
    if (process_) {
        process_->terminate();
        if (!process_->waitForFinished(5000)) {
            process_->kill();
            process_->waitForFinished(5000);
        }
        delete process_;
    }
}

bool ChromiumDriver::start(int width, int height)
{
    int commands[2];
    int answers[2];
    if (::pipe2(commands, O_CLOEXEC) != 0 || ::pipe2(answers, O_CLOEXEC) != 0) {
        error_ = QStringLiteral("no pipes");
        return false;
    }
    process_ = new QProcess;
    process_->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process_->setStandardOutputFile(QProcess::nullDevice());
    const int childReads = commands[0];
    const int childWrites = answers[1];
    process_->setChildProcessModifier([childReads, childWrites] {
        // The browser reads commands on 3 and writes answers on 4. Move both out of the way
        // first, in case either already is 3 or 4.
        const int reads = ::fcntl(childReads, F_DUPFD, 10);
        const int writes = ::fcntl(childWrites, F_DUPFD, 10);
        ::dup2(reads, 3);
        ::dup2(writes, 4);
    });
    process_->start(QStringLiteral("chromium"),
                    {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                     "--no-first-run", "--disable-background-networking",
                     "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage",
                     "--hide-scrollbars", "--remote-debugging-pipe",
                     QStringLiteral("--window-size=%1,%2").arg(width).arg(height),
                     "--user-data-dir=" + profile_.path(), "about:blank"});
    ::close(childReads);
    ::close(childWrites);
    toBrowser_ = commands[1];
    fromBrowser_ = answers[0];
    if (!process_->waitForStarted(10000)) {
        error_ = QStringLiteral("chromium did not start: ") + process_->errorString();
        return false;
    }
    return call(QStringLiteral("Browser.getVersion"), {}).has_value();
}

std::optional<QJsonObject> ChromiumDriver::call(const QString& method, const QJsonObject& params,
                                                const QString& session, int timeoutMs)
{
    const int id = nextId_++;
    QJsonObject message{{"id", id}, {"method", method}, {"params", params}};
    if (!session.isEmpty())
        message.insert(QStringLiteral("sessionId"), session);
    QByteArray bytes = QJsonDocument(message).toJson(QJsonDocument::Compact);
    bytes.append('\0');
    for (qsizetype at = 0; at < bytes.size();) {
        const ssize_t written =
            ::write(toBrowser_, bytes.constData() + at, std::size_t(bytes.size() - at));
        if (written <= 0) {
            error_ = QStringLiteral("the browser's pipe closed");
            return std::nullopt;
        }
        at += written;
    }
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        qsizetype end;
        while ((end = pending_.indexOf('\0')) >= 0) {
            const QJsonObject answer = QJsonDocument::fromJson(pending_.first(end)).object();
            pending_.remove(0, end + 1);
            if (answer.value(QStringLiteral("id")).toInt() != id)
                continue; // an event, or an answer nobody waits for
            if (answer.contains(QStringLiteral("error"))) {
                error_ =
                    method + QStringLiteral(": ") +
                    QString::fromUtf8(QJsonDocument(answer.value("error").toObject()).toJson());
                return std::nullopt;
            }
            return answer.value(QStringLiteral("result")).toObject();
        }
        const qint64 left = timeoutMs - clock.elapsed();
        if (left <= 0) {
            error_ = method + QStringLiteral(": no answer");
            return std::nullopt;
        }
        pollfd wait{fromBrowser_, POLLIN, 0};
        if (::poll(&wait, 1, int(left)) <= 0)
            continue;
        char buffer[65536];
        const ssize_t count = ::read(fromBrowser_, buffer, sizeof buffer);
        if (count <= 0) {
            error_ = QStringLiteral("the browser went away");
            return std::nullopt;
        }
        pending_.append(buffer, count);
    }
}

QString ChromiumDriver::open(const QString& url)
{
    const auto target = call(QStringLiteral("Target.createTarget"), {{"url", url}});
    if (!target)
        return {};
    const auto attached = call(QStringLiteral("Target.attachToTarget"),
                               {{"targetId", target->value("targetId")}, {"flatten", true}});
    if (!attached)
        return {};
    return attached->value(QStringLiteral("sessionId")).toString();
}

std::optional<QJsonValue> ChromiumDriver::evaluate(const QString& session,
                                                   const QString& expression)
{
    const auto result = call(QStringLiteral("Runtime.evaluate"),
                             {{"expression", expression}, {"returnByValue", true}}, session);
    if (!result)
        return std::nullopt;
    return result->value(QStringLiteral("result")).toObject().value(QStringLiteral("value"));
}

QImage ChromiumDriver::screenshot(const QString& session)
{
    const auto result =
        call(QStringLiteral("Page.captureScreenshot"), {{"format", "png"}}, session);
    if (!result)
        return {};
    return QImage::fromData(
        QByteArray::fromBase64(result->value(QStringLiteral("data")).toString().toLatin1()), "PNG");
}
