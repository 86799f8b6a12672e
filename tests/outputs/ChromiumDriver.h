#pragma once

#include <QImage>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QTemporaryDir>

#include <optional>

class QProcess;

// Headless Chromium driven over its DevTools pipe (file descriptors 3 and 4): opens pages,
// evaluates script and takes screenshots. Each call blocks until its answer, up to a time
// limit. A fresh profile folder per browser. Main thread only.
class ChromiumDriver {
public:
    ChromiumDriver();
    ~ChromiumDriver();
    ChromiumDriver(const ChromiumDriver&) = delete;
    ChromiumDriver& operator=(const ChromiumDriver&) = delete;

    bool start(int width, int height);
    QString error() const { return error_; }

    // Opens `url` in a new tab; returns the tab's session, or an empty text.
    QString open(const QString& url);
    std::optional<QJsonValue> evaluate(const QString& session, const QString& expression);
    QImage screenshot(const QString& session);

    // One DevTools call: the "result" object, or nothing (with error()).
    std::optional<QJsonObject> call(const QString& method, const QJsonObject& params,
                                    const QString& session = {}, int timeoutMs = 15000);

private:
    QTemporaryDir profile_;
    QProcess* process_ = nullptr;
    int toBrowser_ = -1;
    int fromBrowser_ = -1;
    int nextId_ = 1;
    QByteArray pending_;
    QString error_;
};
