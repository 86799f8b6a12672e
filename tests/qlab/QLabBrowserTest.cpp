// The QLab browser against a real Avahi daemon on a private bus in its own network namespace,
// with services published by avahi-publish.

#include "qlab/QLabBrowser.h"
#include "base/ManualClock.h"
#include "support/AvahiSandbox.h"

#include <QSignalSpy>
#include <QTest>

using namespace orvane;

namespace {

const QString kType = QStringLiteral("_qlab._tcp");

QStringList namesOf(const QLabBrowser& browser)
{
    QStringList names;
    for (const auto& service : browser.services())
        names.append(service.name);
    return names;
}

} // namespace

class QLabBrowserTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void listsResolvesForgetsAndComesBackAfterARestart();

private:
    // Asks `browser` to resolve `service`; the answers land in `answers`.
    static void resolve(QLabBrowser& browser, const DiscoveredQLab& service,
                        QList<std::optional<QLabBrowser::Resolved>>& answers)
    {
        browser.resolve(service, [&answers](auto result) { answers.append(result); });
    }

    AvahiSandbox sandbox_;
    ManualClock clock_;
};

void QLabBrowserTest::initTestCase()
{
    // The suite runs as root in a namespace of its own; without that there is no daemon to
    // test against, and that is a failure, not a skip.
    QVERIFY2(sandbox_.start(), qPrintable(sandbox_.error()));
}

// One browser through a daemon's life: it lists, resolves, forgets, and lists again after the
// daemon restarts.
void QLabBrowserTest::listsResolvesForgetsAndComesBackAfterARestart()
{
    QVERIFY2(sandbox_.publish("Stage Mac 10", kType, 53010), qPrintable(sandbox_.error()));
    QVERIFY2(sandbox_.publish("Stage Mac 2", kType, 53123), qPrintable(sandbox_.error()));
    QVERIFY2(sandbox_.publish("sound", kType, 53001), qPrintable(sandbox_.error()));
    QVERIFY2(sandbox_.publish("Not QLab", "_http._tcp", 8080), qPrintable(sandbox_.error()));

    QLabBrowser browser(clock_);
    QSignalSpy changes(&browser, &QLabBrowser::servicesChanged);
    browser.start();
    // Sorted by name, ignoring case, digits compared as numbers.
    QTRY_COMPARE_WITH_TIMEOUT(namesOf(browser),
                              QStringList({"sound", "Stage Mac 2", "Stage Mac 10"}), 10000);
    // Listed whole once the daemon has told all it knows, not one name at a time.
    QCOMPARE(changes.count(), 1);
    QCOMPARE(browser.services().front().endpoint.type, kType);

    // Resolved to the IPv4 address and port; the time-out armed beside it never answers again.
    // A service nobody answers for gives nothing at its time-out, and the daemon's own
    // failure, later, is not passed on a second time.
    QList<std::optional<QLabBrowser::Resolved>> answers;
    QList<std::optional<QLabBrowser::Resolved>> nobody;
    resolve(browser, browser.services().at(1), answers);
    QTRY_COMPARE(answers.size(), 1);
    QCOMPARE(answers[0], std::optional(QLabBrowser::Resolved{AvahiSandbox::hostAddress(), 53123}));
    resolve(browser, {"Nobody Here", {-1, -1, kType, "local"}}, nobody);
    QTest::qWait(300);
    clock_.advance(QLabBrowser::kResolveTimeout - Seconds(0.01));
    QCOMPARE(nobody.size(), 0);
    clock_.advance(0.01);
    QCOMPARE(nobody, QList<std::optional<QLabBrowser::Resolved>>{std::nullopt});
    QTest::qWait(300);
    QCOMPARE(nobody.size(), 1);
    QCOMPARE(answers.size(), 1);

    sandbox_.unpublish("Stage Mac 10");
    QTRY_COMPARE_WITH_TIMEOUT(namesOf(browser), QStringList({"sound", "Stage Mac 2"}), 10000);

    sandbox_.stopDaemon();
    QTRY_VERIFY_WITH_TIMEOUT(!browser.isBrowsing(), 10000);
    // The list keeps its last contents while the browser waits to start again.
    QCOMPARE(namesOf(browser), QStringList({"sound", "Stage Mac 2"}));
    QVERIFY2(sandbox_.startDaemon(), qPrintable(sandbox_.error()));
    QVERIFY2(sandbox_.publish("Stage Mac 3", kType, 53003), qPrintable(sandbox_.error()));
    QTest::qWait(200);
    QVERIFY(!browser.isBrowsing()); // nothing happens before the restart delay
    clock_.advance(QLabBrowser::kRestartDelay);
    QVERIFY(browser.isBrowsing());
    QTRY_COMPARE_WITH_TIMEOUT(namesOf(browser), QStringList({"Stage Mac 3"}), 10000);
}

QTEST_GUILESS_MAIN(QLabBrowserTest)
#include "QLabBrowserTest.moc"
