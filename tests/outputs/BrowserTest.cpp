// What a person sees: headless Chromium opens the page of `orvane serve` (the test pattern
// with the demo show), the picture moves, and after Orvane restarts the page picks the stream
// up again by itself.

#include "ChromiumDriver.h"

#include <QJsonDocument>
#include <QProcess>
#include <QTcpServer>
#include <QTest>

namespace {

int freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

// The share of pixels that differ clearly between two screenshots.
double changedShare(const QImage& a, const QImage& b)
{
    if (a.size() != b.size() || a.isNull())
        return 1;
    qint64 changed = 0;
    for (int y = 0; y < a.height(); y += 2) {
        for (int x = 0; x < a.width(); x += 2)
            changed += qAbs(qGray(a.pixel(x, y)) - qGray(b.pixel(x, y))) > 24;
    }
    return double(changed) / (double(a.width() / 2) * double(a.height() / 2));
}

} // namespace

class BrowserTest : public QObject {
    Q_OBJECT

private slots:
    void showsAMovingPictureAndComesBack();

private:
    bool startOrvane(QProcess& orvane, int port);
    bool pictureMoves(const QString& session);

    ChromiumDriver browser_;
};

bool BrowserTest::startOrvane(QProcess& orvane, int port)
{
    orvane.setProcessChannelMode(QProcess::MergedChannels);
    orvane.start(qEnvironmentVariable("ORVANE_EXECUTABLE"),
                 {"serve", "--no-ndi", "--size", "1280x720", "--port", QString::number(port)});
    return QTest::qWaitFor(
        [&] { return orvane.readAll().contains("web viewer: listening on port"); }, 15000);
}

bool BrowserTest::pictureMoves(const QString& session)
{
    const QImage before = browser_.screenshot(session);
    QTest::qWait(400);
    const QImage after = browser_.screenshot(session);
    const double share = changedShare(before, after);
    qInfo("%.2f %% of the page changed", share * 100);
    // The test pattern's bars drift and its box moves: far more than the clock's digits.
    return !before.isNull() && share > 0.02;
}

void BrowserTest::showsAMovingPictureAndComesBack()
{
    const int port = freePort();
    QProcess orvane;
    QVERIFY(startOrvane(orvane, port));
    QVERIFY2(browser_.start(1280, 720), qPrintable(browser_.error()));
    const QString session = browser_.open(QStringLiteral("http://127.0.0.1:%1/").arg(port));
    QVERIFY2(!session.isEmpty(), qPrintable(browser_.error()));

    const auto value = [&](const char* expression) {
        return browser_.evaluate(session, QString::fromLatin1(expression))
            .value_or(QJsonValue())
            .toVariant();
    };
    QTRY_COMPARE_WITH_TIMEOUT(value("document.getElementById('video').naturalWidth").toInt(), 1280,
                              15000);
    QCOMPARE(value("document.title").toString(), "Orvane");
    QCOMPARE(value("document.getElementById('fullscreen').textContent").toString(), "Full Screen");
    QCOMPARE(value("document.getElementById('video').alt").toString(), "Live picture from Orvane");
    QCOMPARE(value("getComputedStyle(document.getElementById('video')).objectFit").toString(),
             "contain");
    QCOMPARE(value("getComputedStyle(document.getElementById('fullscreen')).right").toString(),
             "16px");
    QVERIFY(pictureMoves(session));
    // The button fades out after 2.5 s without the mouse, and a move brings it back.
    QTRY_COMPARE_WITH_TIMEOUT(value("document.body.className").toString(), "idle", 5000);
    const auto mouse = [&](const char* type, int x, int y) {
        return browser_
            .call("Input.dispatchMouseEvent",
                  {{"type", type}, {"x", x}, {"y", y}, {"button", "left"}, {"clickCount", 1}},
                  session)
            .has_value();
    };
    QVERIFY2(mouse("mouseMoved", 300, 300), qPrintable(browser_.error()));
    QTRY_COMPARE(value("document.body.className").toString(), "");
    QTRY_COMPARE_WITH_TIMEOUT(value("document.body.className").toString(), "idle", 5000);

    // The button puts the page into full screen, where it hides itself.
    const auto box =
        QJsonDocument::fromJson(value("JSON.stringify(document.getElementById('fullscreen')"
                                      ".getBoundingClientRect())")
                                    .toString()
                                    .toUtf8())
            .object();
    const int x = int(box.value("x").toDouble() + box.value("width").toDouble() / 2);
    const int y = int(box.value("y").toDouble() + box.value("height").toDouble() / 2);
    // 16 px from the bottom right corner.
    QCOMPARE(int(box.value("right").toDouble()) + 16, value("window.innerWidth").toInt());
    QCOMPARE(int(box.value("bottom").toDouble()) + 16, value("window.innerHeight").toInt());
    QVERIFY(mouse("mousePressed", x, y) && mouse("mouseReleased", x, y));
    QTRY_VERIFY(value("document.fullscreenElement === document.documentElement").toBool());
    QCOMPARE(value("getComputedStyle(document.getElementById('fullscreen')).display").toString(),
             "none");
    QVERIFY(value("document.exitFullscreen().then(function () { return 1; }), 1").toBool());
    QTRY_VERIFY(value("document.fullscreenElement === null").toBool());
    // A double click on the picture does the same.
    QVERIFY(mouse("mousePressed", 300, 300) && mouse("mouseReleased", 300, 300));
    QVERIFY(browser_.call("Input.dispatchMouseEvent",
                          {{"type", "mousePressed"},
                           {"x", 300},
                           {"y", 300},
                           {"button", "left"},
                           {"clickCount", 2}},
                          session) &&
            browser_.call("Input.dispatchMouseEvent",
                          {{"type", "mouseReleased"},
                           {"x", 300},
                           {"y", 300},
                           {"button", "left"},
                           {"clickCount", 2}},
                          session));
    QTRY_VERIFY(value("document.fullscreenElement === document.documentElement").toBool());

    // Orvane goes away: the picture stands still.
    orvane.terminate();
    QVERIFY(orvane.waitForFinished(10000));
    QTest::qWait(500);
    QVERIFY(!pictureMoves(session));

    // Orvane comes back on the same port: the page asks again by itself.
    QProcess again;
    QVERIFY(startOrvane(again, port));
    QVERIFY(QTest::qWaitFor([&] { return pictureMoves(session); }, 20000));
    QVERIFY2(value("document.getElementById('video').src")
                 .toString()
                 .contains(QRegularExpression("/stream\\.mjpg\\?\\d{10,}$")),
             qPrintable(value("document.getElementById('video').src").toString()));
    again.terminate();
    QVERIFY(again.waitForFinished(10000));
}

QTEST_GUILESS_MAIN(BrowserTest)
#include "BrowserTest.moc"
