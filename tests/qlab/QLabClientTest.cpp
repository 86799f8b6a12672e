// The QLab client against the pretend QLab on loopback: joining, passcodes, the keep-alive and
// poll rules on a manual clock, group names, a running timecode, and QLab going away.

#include "qlab/QLabClient.h"
#include "base/ManualClock.h"
#include "peers/PretendQLab.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

using namespace orvane;

namespace {

constexpr int kWaitMs = 5000;

QString lastString(const PretendQLab& qlab, const QString& address)
{
    const auto arguments = qlab.lastArguments(address);
    if (arguments.size() != 1)
        return QStringLiteral("<%1 arguments>").arg(arguments.size());
    const auto* text = std::get_if<std::string>(&arguments[0]);
    return text ? QString::fromStdString(*text) : QStringLiteral("<not a string>");
}

const QLabCue* findCue(const std::vector<QLabCue>& cues, const QString& id)
{
    for (const auto& cue : cues) {
        if (cue.id == id)
            return &cue;
    }
    return nullptr;
}

} // namespace

class QLabClientTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void joinsOnceAWorkspaceOpensAndKeepsItAlive();
    void asksForThePasscodeUntilItIsRight();
    void choosesThePreferredWorkspace_data();
    void choosesThePreferredWorkspace();
    void pollsAndRefreshesOnEvents();
    void namesTheGroupAfterOneLookup();
    void followsATimecodeCue();
    void timecodeNeverStepsBackAtAListRefresh();
    void listBeforeTheConnectAnswerAsksOnce();
    void comesBackAfterQLabQuits();
    void leavesWhenTheSettingsChange();
    void reportsLinkFailures_data();
    void reportsLinkFailures();
    void joinsThePretendQLabCommand();

private:
    QLabClient::Settings settingsFor(QString passcode = {}, QString preferred = {}) const;
    void join(QLabClient& client);
    void addShow();

    std::unique_ptr<ManualClock> clock_;
    std::unique_ptr<PretendQLab> qlab_;
};

void QLabClientTest::init()
{
    clock_ = std::make_unique<ManualClock>();
    qlab_ = std::make_unique<PretendQLab>(*clock_);
    QVERIFY(qlab_->listen(0));
}

void QLabClientTest::cleanup()
{
    qlab_.reset();
    clock_.reset();
}

QLabClient::Settings QLabClientTest::settingsFor(QString passcode, QString preferred) const
{
    QLabClient::Settings settings;
    settings.isEnabled = true;
    settings.host = QStringLiteral("127.0.0.1");
    settings.port = qlab_->port();
    settings.passcode = std::move(passcode);
    settings.preferredWorkspace = std::move(preferred);
    return settings;
}

void QLabClientTest::join(QLabClient& client)
{
    client.apply(settingsFor());
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::connected, kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspace/W1/runningOrPausedCues/shallow"), 1,
                              kWaitMs);
}

// Hamlet: a cue list holding a group "Act 1" with a sound inside, a sound straight in the
// list, and a Timecode cue at 29.97 drop frame.
void QLabClientTest::addShow()
{
    qlab_->openWorkspace("W1", "Hamlet.qlab5");
    qlab_->addCue("W1", {"L1", "", "Main Cue List", "Cue List", "", std::nullopt, {}, 1, 0});
    qlab_->addCue("W1", {"G1", "1", "Act 1", "Group", "L1", std::nullopt, {}, 1, 0});
    qlab_->addCue("W1", {"A1", "1.1", "Rain", "Audio", "G1", 40.0, {}, 1, 0});
    qlab_->addCue("W1", {"A2", "2", "Thunder", "Audio", "L1", 12.0, {}, 1, 0});
    qlab_->addCue("W1", {"T1", "3", "", "Timecode", "L1", std::nullopt, "01:00:00;00", 6, 1});
}

// The settings window writes a blank host for QLab on this computer; the client agrees, so
// "Connecting…" is never shown for a link that goes nowhere.
void QLabClientTest::joinsOnceAWorkspaceOpensAndKeepsItAlive()
{
    QLabClient client(*clock_);
    QCOMPARE(client.statusText(), QStringLiteral("Off"));
    auto settings = settingsFor();
    settings.host = QStringLiteral("  ");
    client.apply(settings);
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::noWorkspace, kWaitMs);
    QCOMPARE(client.statusText(), QStringLiteral("No Workspace Open"));
    QCOMPARE(client.advice(),
             QStringLiteral("Open a workspace in QLab and Orvane will connect to it."));
    QCOMPARE(qlab_->requestCount("/workspaces"), 1);

    // Every keep-alive tick asks again while nothing is open.
    for (int tick = 1; tick <= 2; ++tick) {
        clock_->advance(5);
        QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspaces"), 1 + tick, kWaitMs);
        QCOMPARE(client.state(), QLabClient::State::noWorkspace);
    }
    QVERIFY(!qlab_->requests().contains("/workspace/W1/connect"));

    qlab_->openWorkspace("W1", "Hamlet.qlab5");
    clock_->advance(5);
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::connected, kWaitMs);
    QCOMPARE(client.statusText(), QStringLiteral("Connected"));
    QCOMPARE(client.advice(), QString());
    QCOMPARE(client.workspaceName(), std::optional<QString>("Hamlet.qlab5"));
    QCOMPARE(client.workspaces(), std::vector<QLabWorkspace>({{"W1", "Hamlet.qlab5"}}));
    QCOMPARE(qlab_->lastArguments("/workspace/W1/connect").size(), std::size_t(0));
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspace/W1/runningOrPausedCues/shallow"), 1,
                              kWaitMs);
    // Subscribed: updates on, both cue events listened to, in that order, before the first ask.
    const QStringList expected{"/updates", "/workspace/W1/listen/cue/start",
                               "/workspace/W1/listen/cue/stop",
                               "/workspace/W1/runningOrPausedCues/shallow"};
    const auto at = qlab_->requests().indexOf("/updates");
    QCOMPARE(qlab_->requests().mid(at, 4), expected);
    QCOMPARE(qlab_->lastArguments("/updates"), std::vector<OSCArgument>{std::int32_t(1)});

    // Joined, every sixth keep-alive tick lists the workspaces instead of thumping.
    qlab_->clearRequests();
    QList<int> listedAt;
    for (int tick = 1; tick <= 13; ++tick) {
        const int lists = qlab_->requestCount("/workspaces");
        clock_->advance(5);
        QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspaces") +
                                      qlab_->requestCount("/workspace/W1/thump"),
                                  tick, kWaitMs);
        if (qlab_->requestCount("/workspaces") > lists)
            listedAt << tick;
    }
    QCOMPARE(listedAt.size(), 2);
    QCOMPARE(listedAt[1] - listedAt[0], 6);
    QCOMPARE(client.state(), QLabClient::State::connected);

    // QLab closes the workspace: back to waiting for one.
    qlab_->closeWorkspace("W1");
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::noWorkspace, kWaitMs);
    QCOMPARE(client.workspaceName(), std::nullopt);
    qlab_->openWorkspace("W1", "Hamlet.qlab5");
    clock_->advance(5);
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::connected, kWaitMs);
}

void QLabClientTest::asksForThePasscodeUntilItIsRight()
{
    qlab_->openWorkspace("W1", "Hamlet.qlab5", "1234", {"view"});
    QLabClient client(*clock_);
    client.apply(settingsFor());
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::passcodeRequired, kWaitMs);
    QCOMPARE(qlab_->lastArguments("/workspace/W1/connect").size(), std::size_t(0));
    QCOMPARE(client.statusText(), QStringLiteral("Passcode Required"));
    QCOMPARE(client.advice(),
             QStringLiteral("This workspace needs an OSC passcode. Enter it below; "
                            "it's set in QLab's Workspace Settings › Network."));
    // The keep-alive's list does not try again with the same passcode.
    clock_->advance(5);
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspaces"), 2, kWaitMs);
    QTest::qWait(50);
    QCOMPARE(qlab_->requestCount("/workspace/W1/connect"), 1);

    client.apply(settingsFor("4321"));
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspace/W1/connect"), 2, kWaitMs);
    QCOMPARE(lastString(*qlab_, "/workspace/W1/connect"), QStringLiteral("4321"));
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::passcodeRequired, kWaitMs);

    // A passcode that QLab knows but that grants no OSC access is "denied".
    client.apply(settingsFor("view"));
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspace/W1/connect"), 3, kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::passcodeRequired, kWaitMs);

    client.apply(settingsFor("1234"));
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::connected, kWaitMs);
    QCOMPARE(lastString(*qlab_, "/workspace/W1/connect"), QStringLiteral("1234"));
    QCOMPARE(qlab_->connectionCount(), 1); // the same link throughout
}

void QLabClientTest::choosesThePreferredWorkspace_data()
{
    QTest::addColumn<QString>("preferred");
    QTest::addColumn<QString>("joined");
    QTest::newRow("by identity") << "W2"
                                 << "W2";
    QTest::newRow("no match: the first") << "Lear"
                                         << "W1";
}

void QLabClientTest::choosesThePreferredWorkspace()
{
    QFETCH(QString, preferred);
    QFETCH(QString, joined);
    qlab_->openWorkspace("W1", "Hamlet.qlab5");
    qlab_->openWorkspace("W2", "Macbeth.qlab5");
    QLabClient client(*clock_);
    client.apply(settingsFor({}, preferred));
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::connected, kWaitMs);
    QCOMPARE(qlab_->requestCount("/workspace/" + joined + "/connect"), 1);
    QCOMPARE(
        qlab_->requestCount("/workspace/" + QString(joined == "W1" ? "W2" : "W1") + "/connect"), 0);
}

void QLabClientTest::pollsAndRefreshesOnEvents()
{
    addShow();
    QLabClient client(*clock_);
    join(client);
    const QString list = QStringLiteral("/workspace/W1/runningOrPausedCues/shallow");

    // The whole list is asked for at every fifth one-second tick.
    for (int tick = 1; tick <= 4; ++tick)
        clock_->advance(1);
    QTest::qWait(50);
    QCOMPARE(qlab_->requestCount(list), 1);
    clock_->advance(1);
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount(list), 2, kWaitMs);

    // A cue event brings a refresh at once instead of at the next fifth tick.
    QSignalSpy changes(&client, &QLabClient::runningCuesChanged);
    int calls = 0;
    client.setOnRunningCuesChanged([&] { ++calls; });
    qlab_->startCue("W1", "A2");
    QTest::qWait(100);
    QCOMPARE(qlab_->requestCount(list), 2);
    clock_->advance(QLabClient::kRefreshDelay);
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount(list), 3, kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(client.runningCues().size(), std::size_t(1), kWaitMs);
    QCOMPARE(client.runningCues()[0].name, QStringLiteral("Thunder"));
    QCOMPARE(client.runningCues()[0].duration, std::optional(12.0));
    QCOMPARE(calls, changes.count());
    // The start event and its update messages come as one burst and make one refresh.
    clock_->advance(QLabClient::kRefreshDelay);
    QTest::qWait(50);
    QCOMPARE(qlab_->requestCount(list), 3);

    const WallTime firstSeen = *client.runningCues()[0].startedAt;
    qlab_->stopCue("W1", "A2");
    QTest::qWait(100);
    clock_->advance(QLabClient::kRefreshDelay);
    QTRY_VERIFY_WITH_TIMEOUT(client.runningCues().empty(), kWaitMs);
    // A cue that runs again is seen anew.
    qlab_->startCue("W1", "A2");
    QTest::qWait(100);
    clock_->advance(QLabClient::kRefreshDelay);
    QTRY_COMPARE_WITH_TIMEOUT(client.runningCues().size(), std::size_t(1), kWaitMs);
    QVERIFY(*client.runningCues()[0].startedAt > firstSeen);
}

void QLabClientTest::namesTheGroupAfterOneLookup()
{
    addShow();
    qlab_->setHoldsCueValues(true);
    QLabClient client(*clock_);
    join(client);
    qlab_->startCue("W1", "A1");
    qlab_->startCue("W1", "A2");
    QTest::qWait(100);
    clock_->advance(QLabClient::kRefreshDelay);
    QTRY_COMPARE_WITH_TIMEOUT(client.runningCues().size(), std::size_t(2), kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspace/W1/cue_id/G1/valuesForKeys"), 1,
                              kWaitMs);
    QCOMPARE(findCue(client.runningCues(), "A1")->parentName, std::nullopt);

    // Two more refreshes while QLab has not answered: no second lookup.
    for (int refresh = 0; refresh < 2; ++refresh) {
        clock_->advance(5);
        QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspace/W1/runningOrPausedCues/shallow"),
                                  3 + refresh, kWaitMs);
    }
    QTest::qWait(50);
    QCOMPARE(qlab_->requestCount("/workspace/W1/cue_id/G1/valuesForKeys"), 1);
    QCOMPARE(qlab_->requestCount("/workspace/W1/cue_id/L1/valuesForKeys"), 1);

    qlab_->releaseCueValues();
    QTRY_COMPARE_WITH_TIMEOUT(findCue(client.runningCues(), "A1")->parentName,
                              std::optional<QString>("Act 1"), kWaitMs);
    QCOMPARE(findCue(client.runningCues(), "A1")->displayName(), QStringLiteral("Act 1 › Rain"));
    // The sound straight in the cue list gets no group name, and neither parent is asked again.
    QCOMPARE(findCue(client.runningCues(), "A2")->parentName, std::nullopt);
    clock_->advance(5);
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspace/W1/runningOrPausedCues/shallow"), 5,
                              kWaitMs);
    QTest::qWait(50);
    QCOMPARE(qlab_->requestCount("/workspace/W1/cue_id/G1/valuesForKeys"), 1);
    QCOMPARE(qlab_->requestCount("/workspace/W1/cue_id/L1/valuesForKeys"), 1);
}

void QLabClientTest::followsATimecodeCue()
{
    addShow();
    qlab_->setWritesNumbersAsText(true);
    QLabClient client(*clock_);
    join(client);
    QCOMPARE(client.showTime(clock_->wallNow()), std::nullopt);
    qlab_->startCue("W1", "T1");
    QTest::qWait(100);
    clock_->advance(QLabClient::kRefreshDelay);
    // The list gives no start or rate; the client asks for them once.
    QTRY_VERIFY_WITH_TIMEOUT(client.timecodeCue() && client.timecodeCue()->timecodeStart, kWaitMs);
    QCOMPARE(client.timecodeCue()->timecodeStart, std::optional<QString>("01:00:00;00"));
    QCOMPARE(client.timecodeCue()->timecodeRateIndex, std::optional<std::int64_t>(6));
    QCOMPARE(client.timecodeCue()->timecodeOutputType, std::optional<std::int64_t>(1));

    auto time = client.showTime(clock_->wallNow());
    QVERIFY(time);
    QCOMPARE(time->framesPerSecond, 30000.0 / 1001.0);
    // 0.1 s have run since the start (the refresh delay): frame 2 at 29.97.
    QCOMPARE(ShowTime::format(time->secondsAt(clock_->wallNow()), time->framesPerSecond),
             QStringLiteral("01:00:00:02"));

    // Each poll tick asks for the cue's values, so QLab's elapsed time stays exact.
    const QString values = QStringLiteral("/workspace/W1/cue_id/T1/valuesForKeys");
    const int asked = qlab_->requestCount(values);
    for (int second = 1; second <= 2; ++second) {
        clock_->advance(1);
        QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount(values), asked + second, kWaitMs);
    }
    QTRY_VERIFY_WITH_TIMEOUT(
        client.timecodeCue()->actionElapsed && *client.timecodeCue()->actionElapsed > 1.9, kWaitMs);
    time = client.showTime(clock_->wallNow());
    QVERIFY(time);
    QCOMPARE(time->start, 3600.0);
    QCOMPARE(ShowTime::format(time->secondsAt(clock_->wallNow()), time->framesPerSecond),
             QStringLiteral("01:00:02:02"));
    QCOMPARE(ShowTime::format(time->secondsAt(addSeconds(clock_->wallNow(), 0.5)),
                              time->framesPerSecond),
             QStringLiteral("01:00:02:17"));

    // Paused in QLab: the timecode holds.
    qlab_->pauseCue("W1", "T1");
    clock_->advance(1);
    QTRY_VERIFY_WITH_TIMEOUT(client.timecodeCue()->isPaused, kWaitMs);
    time = client.showTime(clock_->wallNow());
    const double held = time->secondsAt(clock_->wallNow());
    QCOMPARE(time->secondsAt(addSeconds(clock_->wallNow(), 10)), held);
}

// QLab's shallow list carries no elapsed times, so each refresh must keep the exact time the
// Timecode cue's own values gave, never fall back to when the cue was first seen.
void QLabClientTest::timecodeNeverStepsBackAtAListRefresh()
{
    addShow();
    qlab_->setListsShallowKeysOnly(true);
    QLabClient client(*clock_);
    join(client);
    qlab_->startCue("W1", "T1");
    const WallTime started = clock_->wallNow();
    QTest::qWait(100);
    clock_->advance(QLabClient::kRefreshDelay); // first seen 0.1 s (3 frames) after it started
    QTRY_VERIFY_WITH_TIMEOUT(client.timecodeCue() && client.timecodeCue()->actionElapsed, kWaitMs);

    const QString list = QStringLiteral("/workspace/W1/runningOrPausedCues/shallow");
    const int refreshes = qlab_->requestCount(list);
    double shown = 0;
    for (int step = 1; step <= 60; ++step) { // 12 s: two full refreshes
        clock_->advance(0.2);
        QTest::qWait(step % 5 == 0 ? 50 : 0); // the answers to each second's asks
        const WallTime now = clock_->wallNow();
        const auto time = client.showTime(now);
        QVERIFY(time);
        const double seconds = time->secondsAt(now);
        QVERIFY2(seconds >= shown, qPrintable(QStringLiteral("at %1 s: %2 after %3")
                                                  .arg(step * 0.2)
                                                  .arg(seconds, 0, 'f', 3)
                                                  .arg(shown, 0, 'f', 3)));
        QCOMPARE(seconds, 3600 + secondsBetween(started, now));
        shown = seconds;
    }
    QCOMPARE(qlab_->requestCount(list), refreshes + 2);
}

// A keep-alive's "/workspaces" answered before the answer to "/connect" must not join twice.
void QLabClientTest::listBeforeTheConnectAnswerAsksOnce()
{
    qlab_->openWorkspace("W1", "Hamlet.qlab5");
    qlab_->setHoldsConnectAnswers(true);
    QLabClient client(*clock_);
    client.apply(settingsFor());
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspace/W1/connect"), 1, kWaitMs);
    clock_->advance(5);
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspaces"), 2, kWaitMs);
    QTest::qWait(100); // the list's answer
    QCOMPARE(qlab_->requestCount("/workspace/W1/connect"), 1);
    QCOMPARE(client.state(), QLabClient::State::connecting);

    qlab_->releaseConnectAnswers();
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/updates"), 1, kWaitMs);
    QCOMPARE(client.state(), QLabClient::State::connected);
}

void QLabClientTest::comesBackAfterQLabQuits()
{
    addShow();
    QLabClient client(*clock_);
    join(client);
    qlab_->startCue("W1", "A2");
    QTest::qWait(100);
    clock_->advance(QLabClient::kRefreshDelay);
    QTRY_COMPARE_WITH_TIMEOUT(client.runningCues().size(), std::size_t(1), kWaitMs);
    const quint16 port = qlab_->port();

    qlab_->quit();
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::unreachable, kWaitMs);
    QCOMPARE(client.statusText(), QStringLiteral("Not Connected"));
    QVERIFY(client.runningCues().empty());
    QCOMPARE(client.workspaceName(), std::nullopt);

    clock_->advance(1); // the first retry finds nobody listening
    QTRY_COMPARE_WITH_TIMEOUT(client.statusText(), QStringLiteral("QLab Not Running"), kWaitMs);
    QCOMPARE(client.advice(), QStringLiteral("QLab isn't open on that Mac, or its OSC access is "
                                             "turned off in Workspace Settings › Network."));

    QVERIFY(qlab_->listen(port));
    qlab_->clearRequests();
    clock_->advance(2); // the second retry
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::connected, kWaitMs);
    QCOMPARE(qlab_->requestCount("/workspace/W1/connect"), 1);
    QTRY_COMPARE_WITH_TIMEOUT(client.runningCues().size(), std::size_t(1), kWaitMs);
}

void QLabClientTest::leavesWhenTheSettingsChange()
{
    qlab_->openWorkspace("W1", "Hamlet.qlab5");
    qlab_->openWorkspace("W2", "Macbeth.qlab5");
    QLabClient client(*clock_);
    join(client);
    QSignalSpy names(&client, &QLabClient::workspaceNameChanged);

    client.apply(settingsFor({}, " macb "));
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspace/W1/disconnect"), 1, kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(client.workspaceName(), std::optional<QString>("Macbeth.qlab5"),
                              kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::connected, kWaitMs);
    QCOMPARE(qlab_->connectionCount(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspace/W2/runningOrPausedCues/shallow"), 1,
                              kWaitMs);
    // The old poll stopped with the old workspace.
    qlab_->clearRequests();
    clock_->advance(5);
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->requestCount("/workspace/W2/runningOrPausedCues/shallow"), 1,
                              kWaitMs);
    QCOMPARE(qlab_->requestCount("/workspace/W1/runningOrPausedCues/shallow"), 0);

    auto off = settingsFor({}, " macb ");
    off.isEnabled = false;
    client.apply(off);
    QCOMPARE(client.statusText(), QStringLiteral("Off"));
    QCOMPARE(client.advice(), QString());
    QCOMPARE(client.workspaceName(), std::nullopt);
    QTRY_COMPARE_WITH_TIMEOUT(qlab_->connectionCount(), 0, kWaitMs);
    QCOMPARE(qlab_->requestCount("/workspace/W2/disconnect"), 1);
}

void QLabClientTest::reportsLinkFailures_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<int>("port"); // -1: a listener that answers in plain text
    QTest::addColumn<QString>("status");
    QTest::addColumn<QString>("advice");
    QTest::newRow("port out of range") << "127.0.0.1" << 0 << "Not Connected"
                                       << "Choose a port between 1 and 65535. QLab uses 53000.";
    QTest::newRow("unknown host") << "no-such-qlab.invalid" << 53000 << "Not Connected"
                                  << "Check the host name or address.";
    QTest::newRow("not QLab") << "127.0.0.1" << -1 << "Not Connected"
                              << "That port isn't answering like QLab. QLab uses 53000.";
}

void QLabClientTest::reportsLinkFailures()
{
    QFETCH(QString, host);
    QFETCH(int, port);
    QTcpServer chatter;
    if (port == -1) {
        QVERIFY(chatter.listen(QHostAddress::LocalHost));
        port = chatter.serverPort();
        connect(&chatter, &QTcpServer::newConnection, this, [&chatter] {
            QTcpSocket* socket = chatter.nextPendingConnection();
            socket->write(QByteArray(300 * 1024, 'x'));
        });
    }
    QLabClient client(*clock_);
    auto settings = settingsFor();
    settings.host = host;
    settings.port = port;
    client.apply(settings);
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::unreachable, kWaitMs);
    QTEST(client.statusText(), "status");
    QTEST(client.advice(), "advice");
}

void QLabClientTest::joinsThePretendQLabCommand()
{
    const QString executable = qEnvironmentVariable("ORVANE_EXECUTABLE");
    QVERIFY2(!executable.isEmpty(), "ORVANE_EXECUTABLE names the orvane binary");
    quint16 port = 0;
    {
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        port = probe.serverPort();
    }
    QProcess command;
    command.setProcessChannelMode(QProcess::MergedChannels);
    QByteArray output;
    connect(&command, &QProcess::readyRead, this, [&] { output += command.readAll(); });
    command.start(executable, {"pretend-qlab", "--port", QString::number(port), "--workspace",
                               "Try Me.qlab5", "--passcode", "42"});
    QVERIFY(command.waitForStarted());
    QTRY_VERIFY2_WITH_TIMEOUT(output.contains("Pretend QLab on"), output.constData(), kWaitMs);

    // The real clock: the command runs its cues in real time.
    QLabClient client;
    auto settings = settingsFor("42");
    settings.port = port;
    client.apply(settings);
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QLabClient::State::connected, kWaitMs);
    QCOMPARE(client.workspaceName(), std::optional<QString>("Try Me.qlab5"));
    QTRY_VERIFY_WITH_TIMEOUT(client.showTime(WallTime::clock::now()).has_value(), kWaitMs);
    QCOMPARE(client.showTime(WallTime::clock::now())->start, 3600.0);

    command.terminate();
    QVERIFY(command.waitForFinished());
}

QTEST_GUILESS_MAIN(QLabClientTest)
#include "QLabClientTest.moc"
