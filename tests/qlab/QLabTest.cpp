// Decoding what QLab sends (messages, replies, workspaces, cues, the running timecode of a
// Timecode cue); then the QLab client against the pretend QLab on loopback: joining,
// passcodes, the keep-alive and poll rules on a manual clock, group names, a running timecode,
// and QLab going away; last the QLab browser against a real Avahi daemon on a private bus in
// its own network namespace, with services published by avahi-publish.

#include "base/ManualClock.h"
#include "peers/PretendQLab.h"
#include "qlab/QLabBrowser.h"
#include "qlab/QLabClient.h"
#include "qlab/QLabMessage.h"
#include "support/AvahiSandbox.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

using namespace orvane;
using State = QLabClient::State;

Q_DECLARE_METATYPE(OSCMessage)

namespace {

const QString kType = QStringLiteral("_qlab._tcp");
const QString kList = QStringLiteral("/workspace/W1/runningOrPausedCues/shallow");

QString lastString(const PretendQLab& qlab, const QString& address)
{
    const auto arguments = qlab.lastArguments(address);
    const auto* text = arguments.size() == 1 ? std::get_if<std::string>(&arguments[0]) : nullptr;
    return text ? QString::fromStdString(*text) : QStringLiteral("<not one string>");
}

const QLabCue& cue(const QLabClient& client, const QString& id)
{
    static const QLabCue missing;
    for (const auto& running : client.runningCues()) {
        if (running.id == id)
            return running;
    }
    return missing;
}

const WallTime kNow = WallTime(std::chrono::seconds(1'800'000'000));

// kind|workspace|cue, and for a reply |address|workspace|status|data; "ignored" for nothing.
QString summary(const std::optional<QLabMessage>& message)
{
    if (!message)
        return QStringLiteral("ignored");
    static const QStringList kinds{"reply",      "cueStarted", "cueStopped", "workspaceUpdated",
                                   "cueUpdated", "playback",   "disconnect"};
    QStringList parts{kinds.at(int(message->kind)), message->workspaceID, message->cueID};
    if (message->kind == QLabMessage::Kind::reply) {
        const QLabReply& reply = message->reply;
        parts << reply.address << reply.workspaceID.value_or("-") << reply.status
              << (reply.data.isUndefined()
                      ? QStringLiteral("-")
                      : QString::fromUtf8(
                            QJsonDocument(QJsonArray{reply.data}).toJson(QJsonDocument::Compact)));
    }
    return parts.join(u'|');
}

// A running timecode as start+elapsed@frames per second.
QString timeText(double start, double elapsed, double framesPerSecond)
{
    return QStringLiteral("%1+%2@%3")
        .arg(start, 0, 'g', 12)
        .arg(elapsed, 0, 'g', 12)
        .arg(framesPerSecond, 0, 'g', 12);
}

QStringList namesOf(const QLabBrowser& browser)
{
    QStringList names;
    for (const auto& service : browser.services())
        names.append(service.name);
    return names;
}

} // namespace

class QLabTest : public QObject {
    Q_OBJECT

private slots:
    void classifiesMessages_data();
    void classifiesMessages();
    void decodesWorkspaces();
    void decodesCues_data();
    void decodesCues();
    void init();
    void joinsOnceAWorkspaceOpensAndKeepsItAlive();
    void asksForThePasscodeUntilItIsRight();
    void pollsRefreshesAndComesBackAfterQLabQuits();
    void namesTheGroupAfterOneLookup();
    void followsATimecodeCue();
    void choosesAndLeavesWorkspacesAsTheSettingsChange();
    void browserListsResolvesForgetsAndComesBackAfterARestart();

private:
    QLabClient::Settings settingsFor(QString passcode = {}, QString preferred = {}) const
    {
        return {true, QStringLiteral("127.0.0.1"), qlab_->port(), passcode, preferred};
    }
    void join(QLabClient& client)
    {
        client.apply(settingsFor());
        QTRY_COMPARE(client.state(), State::connected);
        QTRY_COMPARE(qlab_->requestCount(kList), 1);
    }
    // Hamlet: a cue list holding a group "Act 1" with a sound inside, a sound straight in the
    // list, and a Timecode cue at 29.97 drop frame.
    void addShow()
    {
        qlab_->openWorkspace("W1", "Hamlet.qlab5");
        qlab_->addCue("W1", {"L1", "", "Main Cue List", "Cue List", "", std::nullopt, {}, 1, 0});
        qlab_->addCue("W1", {"G1", "1", "Act 1", "Group", "L1", std::nullopt, {}, 1, 0});
        qlab_->addCue("W1", {"A1", "1.1", "Rain", "Audio", "G1", 40.0, {}, 1, 0});
        qlab_->addCue("W1", {"A2", "2", "Thunder", "Audio", "L1", 12.0, {}, 1, 0});
        qlab_->addCue("W1", {"T1", "3", "", "Timecode", "L1", std::nullopt, "01:00:00;00", 6, 1});
    }
    // Does `action` to a cue in QLab, lets its event reach the client, and lets the refresh
    // that the event brings run.
    void inQLab(void (PretendQLab::*action)(const QString&, const QString&), const char* cueID)
    {
        (qlab_.get()->*action)("W1", cueID);
        QTest::qWait(100);
        clock_->advance(QLabClient::kRefreshDelay);
    }

    std::unique_ptr<ManualClock> clock_;
    std::unique_ptr<PretendQLab> qlab_;
    AvahiSandbox sandbox_;
};

void QLabTest::classifiesMessages_data()
{
    QTest::addColumn<OSCMessage>("message");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char* name, std::string address, std::vector<OSCArgument> arguments,
                        const char* expected) {
        QTest::newRow(name) << OSCMessage{std::move(address), std::move(arguments)} << expected;
    };
    const auto text = [](const char* json) { return std::vector<OSCArgument>{std::string(json)}; };
    const char* listed = R"({"address":"/workspaces","status":"ok"})";
    row("connect reply", "/reply/workspace/W1/connect",
        text(
            R"({"workspace_id":"W1","address":"/workspace/W1/connect","status":"ok","data":"ok"})"),
        R"(reply|W1||/workspace/W1/connect|W1|ok|["ok"])");
    row("reply without data or workspace", "/reply/workspaces", text(listed),
        "reply|||/workspaces|-|ok|-");
    row("reply whose first argument is an int", "/reply/workspaces",
        {std::int32_t(1), std::string(listed)}, "ignored");
    row("reply without arguments", "/reply/workspaces", {}, "ignored");
    row("reply that is not JSON", "/reply/workspaces", text("ok"), "ignored");
    row("reply that is a JSON array", "/reply/workspaces", text("[1,2]"), "ignored");
    row("reply without status", "/reply/workspaces", text(R"({"address":"/workspaces"})"),
        "ignored");
    row("cue start", "/qlab/event/workspace/cue/start", text("x"), "cueStarted||");
    row("cue stop", "/qlab/event/workspace/cue/stop", {}, "cueStopped||");
    row("cue start with more after it", "/qlab/event/workspace/cue/started", {}, "ignored");
    row("workspace update", "/update/workspace/W1", {}, "workspaceUpdated|W1|");
    row("cue update", "/update/workspace/W1/cue_id/C7", {}, "cueUpdated|W1|C7");
    row("playback position", "/update/workspace/W1/cueList/L1/playbackPosition", text("C2"),
        "playback|W1|");
    row("cue update without a cue", "/update/workspace/W1/cue_id", {}, "ignored");
    row("unknown update", "/update/workspace/W1/settings/light", {}, "ignored");
    row("update without a workspace", "/update/workspace/", {}, "ignored");
    row("other address", "/eos/out/ping", {}, "ignored");
    // A workspace's disconnect is seen when QLab closes it in the joining scenario.
}

void QLabTest::classifiesMessages()
{
    QFETCH(OSCMessage, message);
    QTEST(summary(QLabMessage::classify(message)), "expected");
}

void QLabTest::decodesWorkspaces()
{
    // A "/workspaces" reply's data as QLab 5 writes it, with one nameless and one broken entry.
    const auto data = QJsonDocument::fromJson(R"([
        {"uniqueID":"8A9B","displayName":"Hamlet.qlab5","hasPasscode":false,"version":"5.4.1"},
        {"uniqueID":"C0DE","displayName":""}, {"displayName":"no identity"}, "junk"])");
    const std::vector<QLabWorkspace> expected{{"8A9B", "Hamlet.qlab5"},
                                              {"C0DE", "Untitled Workspace"}};
    QCOMPARE(QLabWorkspace::decodeList(data.array()), expected);
    QVERIFY(!QLabWorkspace::decodeList(QJsonValue(QStringLiteral("badpass"))));
}

void QLabTest::decodesCues_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<double>("sinceSample"); // seconds between decoding and asking for a timecode
    QTest::addColumn<QString>("expected");   // number paused elapsed duration parent start => time
    const auto row = [](const char* name, const QByteArray& json, const QString& expected,
                        double sinceSample = 0) {
        QTest::newRow(name) << json << sinceSample << expected;
    };
    const auto timecode = [](const char* members) {
        return R"({"uniqueID":"T","type":"Timecode",)" + QByteArray(members) + "}";
    };
    row("audio cue as QLab 5 sends it",
        R"({"uniqueID":"A1","number":"12","name":"Rain","type":"Audio","isPaused":false,)"
        R"("actionElapsed":3.25,"currentDuration":40,"parent":"G1"})",
        "12 running 3.25 40 G1 - => none");
    row("numbers and Booleans as strings",
        R"({"uniqueID":"A2","number":7,"isPaused":"true","actionElapsed":"1.5","duration":"12"})",
        "7 paused 1.5 12 - - => none");
    row("currentDuration wins over duration",
        R"({"uniqueID":"A3","currentDuration":5,"duration":9})", " running - 5 - - => none");
    row("empty parent and unparsable elapsed",
        R"({"uniqueID":"A4","parent":"","actionElapsed":"soon","isPaused":"maybe"})",
        " running - - - - => none");
    // An infinite rate index is no index: the rate falls back to 25 as for one that is absent.
    row("nan, inf and out-of-range numbers are not numbers",
        timecode(R"("startTime":"00:00:00:00","actionElapsed":"nan","currentDuration":"-inf",)"
                 R"("framerate":"inf")"),
        " running - - - 00:00:00:00 => 0+0@25");
    row("audio cue named like a timecode",
        R"({"uniqueID":"A5","type":"Audio","displayName":"TC 01:00:00:00"})",
        " running - - - - => none");
    row("no identity", R"({"number":"1","name":"lost"})", "none");
    const double fps[] = {24, 25, 30, 30, 24000.0 / 1001, 24.975, 30000.0 / 1001, 30000.0 / 1001,
                          25, 25};
    for (int index = 0; index < 10; ++index) {
        QTest::addRow("rate index %d", index)
            << timecode(R"("startTime":"01:00:00:12","actionElapsed":2,"framerate":)" +
                        QByteArray::number(index))
            << 0.0
            << " running 2 - - 01:00:00:12 => " + timeText(3600 + 12 / fps[index], 2, fps[index]);
    }
    row("start time key wins over the display name",
        timecode(R"("startTime":"10:00:00;00","displayName":"TC 01:00:00:00")"),
        " running - - - 10:00:00;00 => 36000+0@25");
    // A rate index written as text, a semicolon before the frames and a running cue's time
    // since sampling are seen in the Timecode cue scenario below; a pause there cannot show.
    row("paused cue keeps its elapsed time",
        timecode(R"("startTime":"00:00:00:00","actionElapsed":4,"isPaused":true)"),
        " paused 4 - - 00:00:00:00 => 0+4@25", 1.5);
    row("start from the display name",
        R"({"uniqueID":"T","type":"timecode","displayName":"TC 01:00:00:00"})",
        " running - - - 01:00:00:00 => 3600+0@25");
    row("not a timecode cue", R"({"uniqueID":"A","type":"Audio","startTime":"01:00:00:00"})",
        " running - - - 01:00:00:00 => none");
    row("timecode cue without a start", timecode(R"("displayName":"Main TC")"),
        " running - - - - => none");
    row("start that does not parse", timecode(R"("startTime":"00:61:00:00")"),
        " running - - - 00:61:00:00 => none");
}

void QLabTest::decodesCues()
{
    QFETCH(QByteArray, json);
    QFETCH(double, sinceSample);
    const auto cue = QLabCue::decode(QJsonDocument::fromJson(json).object(), kNow);
    const auto number = [](std::optional<double> value) {
        return value ? QString::number(*value) : QStringLiteral("-");
    };
    QString decoded = QStringLiteral("none");
    if (cue) {
        QCOMPARE(cue->sampledAt.has_value(), cue->actionElapsed.has_value());
        const WallTime askedAt = addSeconds(kNow, sinceSample);
        const auto time = cue->runningTimecode(askedAt);
        QVERIFY(!time || (time->sampledAt == askedAt && time->isPaused == cue->isPaused));
        decoded = QStringList(
                      {cue->number, cue->isPaused ? "paused" : "running",
                       number(cue->actionElapsed), number(cue->duration),
                       cue->parentID.value_or("-"), cue->timecodeStart.value_or("-"), "=>",
                       time ? timeText(time->start, time->elapsed, time->framesPerSecond) : "none"})
                      .join(u' ');
    }
    QTEST(decoded, "expected");
}

void QLabTest::init()
{
    qlab_.reset();
    clock_ = std::make_unique<ManualClock>();
    qlab_ = std::make_unique<PretendQLab>(*clock_);
    QVERIFY(qlab_->listen(0));
}

// The settings window writes a blank host for QLab on this computer; the client agrees, so
// "Connecting…" is never shown for a link that goes nowhere.
void QLabTest::joinsOnceAWorkspaceOpensAndKeepsItAlive()
{
    QLabClient client(*clock_);
    QCOMPARE(client.statusText(), QStringLiteral("Off"));
    auto settings = settingsFor();
    settings.host = QStringLiteral("  ");
    client.apply(settings);
    QTRY_COMPARE(client.state(), State::noWorkspace);
    QCOMPARE(client.statusText(), QStringLiteral("No Workspace Open"));
    // Every keep-alive tick asks again while nothing is open.
    for (int tick = 1; tick <= 2; ++tick) {
        clock_->advance(5);
        QTRY_COMPARE(qlab_->requestCount("/workspaces"), 1 + tick);
        QCOMPARE(client.state(), State::noWorkspace);
    }

    qlab_->openWorkspace("W1", "Hamlet.qlab5");
    clock_->advance(5);
    QTRY_COMPARE(client.state(), State::connected);
    QCOMPARE(client.statusText(), QStringLiteral("Connected"));
    QCOMPARE(client.advice(), QString());
    QCOMPARE(client.workspaceName(), std::optional<QString>("Hamlet.qlab5"));
    QCOMPARE(client.workspaces(), std::vector<QLabWorkspace>({{"W1", "Hamlet.qlab5"}}));
    QCOMPARE(qlab_->lastArguments("/workspace/W1/connect").size(), std::size_t(0));
    QTRY_COMPARE(qlab_->requestCount(kList), 1);
    // Subscribed: updates on, both cue events listened to, in that order, before the first ask.
    const auto at = qlab_->requests().indexOf("/updates");
    QCOMPARE(qlab_->requests().mid(at, 4),
             QStringList({"/updates", "/workspace/W1/listen/cue/start",
                          "/workspace/W1/listen/cue/stop", kList}));
    QCOMPARE(qlab_->lastArguments("/updates"), std::vector<OSCArgument>{std::int32_t(1)});

    // Joined, every sixth keep-alive tick lists the workspaces instead of thumping.
    qlab_->clearRequests();
    QList<int> listedAt;
    for (int tick = 1; tick <= 13; ++tick) {
        const int lists = qlab_->requestCount("/workspaces");
        clock_->advance(5);
        QTRY_COMPARE(
            qlab_->requestCount("/workspaces") + qlab_->requestCount("/workspace/W1/thump"), tick);
        if (qlab_->requestCount("/workspaces") > lists)
            listedAt << tick;
    }
    QCOMPARE(listedAt.size(), 2);
    QCOMPARE(listedAt[1] - listedAt[0], 6);

    // QLab closes the workspace: back to waiting for one.
    qlab_->closeWorkspace("W1");
    QTRY_COMPARE(client.state(), State::noWorkspace);
    QCOMPARE(client.workspaceName(), std::nullopt);
    qlab_->openWorkspace("W1", "Hamlet.qlab5");
    clock_->advance(5);
    QTRY_COMPARE(client.state(), State::connected);
}

void QLabTest::asksForThePasscodeUntilItIsRight()
{
    qlab_->openWorkspace("W1", "Hamlet.qlab5", "1234", {"view"});
    qlab_->setHoldsConnectAnswers(true);
    QLabClient client(*clock_);
    client.apply(settingsFor());
    QTRY_COMPARE(qlab_->requestCount("/workspace/W1/connect"), 1);
    QCOMPARE(qlab_->lastArguments("/workspace/W1/connect").size(), std::size_t(0));
    // Neither a keep-alive's list answered before the answer to "/connect", nor one after the
    // passcode was refused, tries again with the same passcode.
    for (const State waiting : {State::connecting, State::passcodeRequired}) {
        const int lists = qlab_->requestCount("/workspaces");
        clock_->advance(5);
        QTRY_COMPARE(qlab_->requestCount("/workspaces"), lists + 1);
        QTest::qWait(100); // the list's answer
        QCOMPARE(qlab_->requestCount("/workspace/W1/connect"), 1);
        QCOMPARE(client.state(), waiting);
        qlab_->releaseConnectAnswers();
        QTRY_COMPARE(client.state(), State::passcodeRequired);
    }
    QCOMPARE(client.statusText(), QStringLiteral("Passcode Required"));
    // A wrong passcode, then one that QLab knows but that grants no OSC access ("denied").
    for (const char* passcode : {"4321", "view"}) {
        const int connects = qlab_->requestCount("/workspace/W1/connect");
        client.apply(settingsFor(passcode));
        QTRY_COMPARE(qlab_->requestCount("/workspace/W1/connect"), connects + 1);
        QCOMPARE(lastString(*qlab_, "/workspace/W1/connect"), QString::fromLatin1(passcode));
        QTRY_COMPARE(client.state(), State::passcodeRequired);
    }
    client.apply(settingsFor("1234"));
    QTRY_COMPARE(client.state(), State::connected);
    QCOMPARE(lastString(*qlab_, "/workspace/W1/connect"), QStringLiteral("1234"));
    QCOMPARE(qlab_->connectionCount(), 1);        // the same link throughout
    QCOMPARE(qlab_->requestCount("/updates"), 1); // joined once
}

void QLabTest::pollsRefreshesAndComesBackAfterQLabQuits()
{
    addShow();
    QLabClient client(*clock_);
    join(client);
    // The whole list is asked for at every fifth one-second tick.
    for (int tick = 1; tick <= 4; ++tick)
        clock_->advance(1);
    QTest::qWait(50);
    QCOMPARE(qlab_->requestCount(kList), 1);
    clock_->advance(1);
    QTRY_COMPARE(qlab_->requestCount(kList), 2);

    // A cue event brings a refresh at once instead of at the next fifth tick.
    QSignalSpy changes(&client, &QLabClient::runningCuesChanged);
    int calls = 0;
    client.setOnRunningCuesChanged([&] { ++calls; });
    qlab_->startCue("W1", "A2");
    QTest::qWait(100);
    QCOMPARE(qlab_->requestCount(kList), 2);
    clock_->advance(QLabClient::kRefreshDelay);
    QTRY_COMPARE(qlab_->requestCount(kList), 3);
    QTRY_COMPARE(client.runningCues().size(), std::size_t(1));
    QCOMPARE(client.runningCues()[0].name, QStringLiteral("Thunder"));
    QCOMPARE(client.runningCues()[0].duration, std::optional(12.0));
    QCOMPARE(calls, changes.count());
    // The start event and its update messages come as one burst and make one refresh.
    clock_->advance(QLabClient::kRefreshDelay);
    QTest::qWait(50);
    QCOMPARE(qlab_->requestCount(kList), 3);

    // A cue that stops and runs again is seen anew.
    const WallTime firstSeen = *client.runningCues()[0].startedAt;
    inQLab(&PretendQLab::stopCue, "A2");
    QTRY_VERIFY(client.runningCues().empty());
    inQLab(&PretendQLab::startCue, "A2");
    QTRY_COMPARE(client.runningCues().size(), std::size_t(1));
    QVERIFY(*client.runningCues()[0].startedAt > firstSeen);

    // QLab quits, and comes back.
    const quint16 port = qlab_->port();
    qlab_->quit();
    QTRY_COMPARE(client.state(), State::unreachable);
    QCOMPARE(client.statusText(), QStringLiteral("Not Connected"));
    QVERIFY(client.runningCues().empty());
    QCOMPARE(client.workspaceName(), std::nullopt);
    clock_->advance(1); // the first retry finds nobody listening
    QTRY_COMPARE(client.statusText(), QStringLiteral("QLab Not Running"));
    QCOMPARE(client.advice(), QStringLiteral("QLab isn't open on that Mac, or its OSC access is "
                                             "turned off in Workspace Settings › Network."));
    QVERIFY(qlab_->listen(port));
    qlab_->clearRequests();
    clock_->advance(2); // the second retry
    QTRY_COMPARE(client.state(), State::connected);
    QCOMPARE(qlab_->requestCount("/workspace/W1/connect"), 1);
    QTRY_COMPARE(client.runningCues().size(), std::size_t(1));
}

void QLabTest::namesTheGroupAfterOneLookup()
{
    addShow();
    qlab_->setHoldsCueValues(true);
    QLabClient client(*clock_);
    join(client);
    qlab_->startCue("W1", "A1");
    inQLab(&PretendQLab::startCue, "A2");
    QTRY_COMPARE(client.runningCues().size(), std::size_t(2));
    QTRY_COMPARE(qlab_->requestCount("/workspace/W1/cue_id/G1/valuesForKeys"), 1);
    QCOMPARE(cue(client, "A1").parentName, std::nullopt);

    // More refreshes, before and after QLab answers: no second lookup of either parent. The
    // sound straight in the cue list gets no group name.
    for (int refresh = 0; refresh < 3; ++refresh) {
        if (refresh == 2) {
            qlab_->releaseCueValues();
            QTRY_COMPARE(cue(client, "A1").parentName, std::optional<QString>("Act 1"));
        }
        clock_->advance(5);
        QTRY_COMPARE(qlab_->requestCount(kList), 3 + refresh);
        QTest::qWait(50);
        QCOMPARE(qlab_->requestCount("/workspace/W1/cue_id/G1/valuesForKeys"), 1);
        QCOMPARE(qlab_->requestCount("/workspace/W1/cue_id/L1/valuesForKeys"), 1);
    }
    QCOMPARE(cue(client, "A1").displayName(), QStringLiteral("Act 1 › Rain"));
    QCOMPARE(cue(client, "A2").parentName, std::nullopt);
}

// QLab's shallow list carries no elapsed times, and here its values come as text. Each
// refresh must keep the exact time the Timecode cue's own values gave, never fall back to when
// the cue was first seen.
void QLabTest::followsATimecodeCue()
{
    addShow();
    qlab_->setWritesNumbersAsText(true);
    qlab_->setListsShallowKeysOnly(true);
    QLabClient client(*clock_);
    join(client);
    QCOMPARE(client.showTime(clock_->wallNow()), std::nullopt);
    const WallTime started = clock_->wallNow();
    inQLab(&PretendQLab::startCue, "T1"); // first seen 0.1 s after it started
    // The list gives no start or rate; the client asks for them once.
    QTRY_VERIFY(client.timecodeCue() && client.timecodeCue()->timecodeStart &&
                client.timecodeCue()->actionElapsed);
    QCOMPARE(client.timecodeCue()->timecodeStart, std::optional<QString>("01:00:00;00"));
    QCOMPARE(client.timecodeCue()->timecodeRateIndex, std::optional<std::int64_t>(6));
    QCOMPARE(client.timecodeCue()->timecodeOutputType, std::optional<std::int64_t>(1));
    const auto shown = [&](double later = 0) {
        const auto time = client.showTime(clock_->wallNow());
        return time ? ShowTime::format(time->secondsAt(addSeconds(clock_->wallNow(), later)),
                                       time->framesPerSecond)
                    : QString();
    };
    QCOMPARE(shown(), QStringLiteral("01:00:00:02")); // frame 2 at 29.97
    QCOMPARE(shown(0.5), QStringLiteral("01:00:00:17"));

    // Each poll tick asks for the cue's values, so QLab's elapsed time stays exact.
    const QString values = QStringLiteral("/workspace/W1/cue_id/T1/valuesForKeys");
    const int asked = qlab_->requestCount(values);
    const int refreshes = qlab_->requestCount(kList);
    double seen = 0;
    for (int step = 1; step <= 60; ++step) { // 12 s: two full refreshes
        clock_->advance(0.2);
        if (step % 5 == 0) // the answers to each second's asks
            QTRY_COMPARE(qlab_->requestCount(values), asked + step / 5);
        const WallTime now = clock_->wallNow();
        const auto time = client.showTime(now);
        QVERIFY(time);
        const double seconds = time->secondsAt(now);
        QVERIFY2(seconds >= seen, qPrintable(QStringLiteral("at %1 s: %2 after %3")
                                                 .arg(step * 0.2)
                                                 .arg(seconds, 0, 'f', 3)
                                                 .arg(seen, 0, 'f', 3)));
        QCOMPARE(seconds, 3600 + secondsBetween(started, now));
        seen = seconds;
    }
    QCOMPARE(qlab_->requestCount(kList), refreshes + 2);

    // Paused in QLab: the timecode holds.
    qlab_->pauseCue("W1", "T1");
    clock_->advance(1);
    QTRY_VERIFY(client.timecodeCue()->isPaused);
    QCOMPARE(shown(10), shown());
}

void QLabTest::choosesAndLeavesWorkspacesAsTheSettingsChange()
{
    qlab_->openWorkspace("W1", "Hamlet.qlab5");
    qlab_->openWorkspace("W2", "Macbeth.qlab5");
    qlab_->openWorkspace("W3", "Othello.qlab5");
    QLabClient client(*clock_);
    // First a host name that no resolver knows: the stream's to notice, and only this link
    // shows it. (Each other failure's advice is one line of a switch; refused and its advice
    // are seen above.)
    client.apply({true, QStringLiteral("no-such-qlab.invalid"), 53000, {}, {}});
    QTRY_COMPARE(client.state(), State::unreachable);
    QCOMPARE(client.statusText(), QStringLiteral("Not Connected"));
    QCOMPARE(client.advice(), QStringLiteral("Check the host name or address."));
    client.apply(settingsFor({}, "Lear")); // no such workspace: the first
    QTRY_COMPARE(client.state(), State::connected);
    QCOMPARE(client.workspaceName(), std::optional<QString>("Hamlet.qlab5"));

    // By its identity, then by a part of its name: the old workspace is left on the same link.
    const QStringList steps[] = {{"W3", "W1", "W3"}, {" macb ", "W3", "W2"}};
    for (const QStringList& step : steps) { // preferred, left, joined
        const auto asked = [&](const QString& workspace) {
            return qlab_->requestCount("/workspace/" + workspace + "/runningOrPausedCues/shallow");
        };
        qlab_->clearRequests();
        client.apply(settingsFor({}, step[0]));
        QTRY_COMPARE(qlab_->requestCount("/workspace/" + step[1] + "/disconnect"), 1);
        QTRY_COMPARE(asked(step[2]), 1);
        QCOMPARE(client.state(), State::connected);
        QCOMPARE(qlab_->connectionCount(), 1);
        // The old poll stopped with the old workspace.
        qlab_->clearRequests();
        clock_->advance(5);
        QTRY_COMPARE(asked(step[2]), 1);
        QCOMPARE(asked(step[1]), 0);
    }
    QCOMPARE(client.workspaceName(), std::optional<QString>("Macbeth.qlab5"));

    auto off = settingsFor({}, "W2");
    off.isEnabled = false;
    client.apply(off);
    QCOMPARE(client.statusText(), QStringLiteral("Off"));
    QCOMPARE(client.advice(), QString());
    QCOMPARE(client.workspaceName(), std::nullopt);
    QTRY_COMPARE(qlab_->connectionCount(), 0);
    QCOMPARE(qlab_->requestCount("/workspace/W2/disconnect"), 1);
}

// One browser through a daemon's life: it lists, resolves, forgets, and lists again after the
// daemon restarts.
void QLabTest::browserListsResolvesForgetsAndComesBackAfterARestart()
{
    // The suite runs as root in a namespace of its own; without that there is no daemon to
    // test against, and that is a failure, not a skip.
    QVERIFY2(sandbox_.start(), qPrintable(sandbox_.error()));
    QVERIFY2(sandbox_.publish("Stage Mac 10", kType, 53010), qPrintable(sandbox_.error()));
    QVERIFY2(sandbox_.publish("Stage Mac 2", kType, 53123), qPrintable(sandbox_.error()));
    QVERIFY2(sandbox_.publish("sound", kType, 53001), qPrintable(sandbox_.error()));
    QVERIFY2(sandbox_.publish("Not QLab", "_http._tcp", 8080), qPrintable(sandbox_.error()));

    QLabBrowser browser(*clock_);
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
    browser.resolve(browser.services().at(1), [&](auto result) { answers.append(result); });
    QTRY_COMPARE(answers.size(), 1);
    QCOMPARE(answers[0], std::optional(QLabBrowser::Resolved{AvahiSandbox::hostAddress(), 53123}));
    browser.resolve({"Nobody Here", {-1, -1, kType, "local"}},
                    [&](auto result) { nobody.append(result); });
    QTest::qWait(300);
    clock_->advance(QLabBrowser::kResolveTimeout - Seconds(0.01));
    QCOMPARE(nobody.size(), 0);
    clock_->advance(0.01);
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
    clock_->advance(QLabBrowser::kRestartDelay);
    QVERIFY(browser.isBrowsing());
    QTRY_COMPARE_WITH_TIMEOUT(namesOf(browser), QStringList({"Stage Mac 3"}), 10000);
}

QTEST_GUILESS_MAIN(QLabTest)
#include "QLabTest.moc"
