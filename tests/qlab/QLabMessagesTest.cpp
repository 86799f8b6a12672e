// Decoding what QLab sends: message classification, reply envelopes, workspaces, cues and the
// running timecode of a Timecode cue.

#include "qlab/QLabCue.h"
#include "qlab/QLabMessage.h"
#include "qlab/QLabWorkspace.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

using namespace orvane;

Q_DECLARE_METATYPE(std::optional<QLabMessage>)
Q_DECLARE_METATYPE(std::optional<double>)
Q_DECLARE_METATYPE(std::optional<QString>)
Q_DECLARE_METATYPE(OSCMessage)

namespace {

const WallTime kNow = WallTime(std::chrono::seconds(1'800'000'000));

QLabMessage qlabEvent(QLabMessage::Kind kind, QString workspace = {}, QString cue = {})
{
    QLabMessage message;
    message.kind = kind;
    message.workspaceID = std::move(workspace);
    message.cueID = std::move(cue);
    return message;
}

QJsonObject object(const char* json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace

class QLabMessagesTest : public QObject {
    Q_OBJECT

private slots:
    void classifiesMessages_data();
    void classifiesMessages();
    void decodesWorkspaces();
    void decodesCues_data();
    void decodesCues();
    void runningTimecode_data();
    void runningTimecode();
};

void QLabMessagesTest::classifiesMessages_data()
{
    QTest::addColumn<OSCMessage>("message");
    QTest::addColumn<std::optional<QLabMessage>>("expected");
    using Kind = QLabMessage::Kind;

    const std::optional<QLabMessage> none;
    const auto row = [](const char* name, std::string address, std::vector<OSCArgument> arguments,
                        std::optional<QLabMessage> expected) {
        QTest::newRow(name) << OSCMessage{std::move(address), std::move(arguments)} << expected;
    };
    const auto text = [](const char* json) { return std::vector<OSCArgument>{std::string(json)}; };
    QLabMessage connected = qlabEvent(Kind::reply, QStringLiteral("W1"));
    connected.reply.address = QStringLiteral("/workspace/W1/connect");
    connected.reply.workspaceID = QStringLiteral("W1");
    connected.reply.status = QStringLiteral("ok");
    connected.reply.data = QStringLiteral("ok");
    row("connect reply", "/reply/workspace/W1/connect",
        text(
            R"({"workspace_id":"W1","address":"/workspace/W1/connect","status":"ok","data":"ok"})"),
        connected);
    QLabMessage listed = qlabEvent(Kind::reply);
    listed.reply.address = QStringLiteral("/workspaces");
    listed.reply.status = QStringLiteral("ok");
    row("reply without data or workspace", "/reply/workspaces",
        text(R"({"address":"/workspaces","status":"ok"})"), listed);
    row("reply whose first argument is an int", "/reply/workspaces",
        {std::int32_t(1), std::string(R"({"address":"/workspaces","status":"ok"})")}, none);
    row("reply without arguments", "/reply/workspaces", {}, none);
    row("reply that is not JSON", "/reply/workspaces", text("ok"), none);
    row("reply that is a JSON array", "/reply/workspaces", text("[1,2]"), none);
    row("reply without status", "/reply/workspaces", text(R"({"address":"/workspaces"})"), none);
    row("cue start", "/qlab/event/workspace/cue/start", text("x"), qlabEvent(Kind::cueStarted));
    row("cue stop", "/qlab/event/workspace/cue/stop", {}, qlabEvent(Kind::cueStopped));
    row("cue start with more after it", "/qlab/event/workspace/cue/started", {}, none);
    row("workspace update", "/update/workspace/W1", {}, qlabEvent(Kind::workspaceUpdated, "W1"));
    row("cue update", "/update/workspace/W1/cue_id/C7", {},
        qlabEvent(Kind::cueUpdated, "W1", "C7"));
    row("playback position", "/update/workspace/W1/cueList/L1/playbackPosition", text("C2"),
        qlabEvent(Kind::playbackPositionChanged, "W1"));
    row("disconnect", "/update/workspace/W1/disconnect", {}, qlabEvent(Kind::disconnect, "W1"));
    row("cue update without a cue", "/update/workspace/W1/cue_id", {}, none);
    row("unknown update", "/update/workspace/W1/settings/light", {}, none);
    row("update without a workspace", "/update/workspace/", {}, none);
    row("other address", "/eos/out/ping", {}, none);
}

void QLabMessagesTest::classifiesMessages()
{
    QFETCH(OSCMessage, message);
    QFETCH(std::optional<QLabMessage>, expected);
    QCOMPARE(QLabMessage::classify(message), expected);
}

void QLabMessagesTest::decodesWorkspaces()
{
    // A "/workspaces" reply's data as QLab 5 writes it, with one nameless and one broken entry.
    const auto data = QJsonDocument::fromJson(R"([
        {"uniqueID":"8A9B","displayName":"Hamlet.qlab5","hasPasscode":false,"version":"5.4.1"},
        {"uniqueID":"C0DE","displayName":""},
        {"displayName":"no identity"},
        "junk"
    ])")
                          .array();
    const auto workspaces = QLabWorkspace::decodeList(data);
    QVERIFY(workspaces);
    const std::vector<QLabWorkspace> expected{{"8A9B", "Hamlet.qlab5"},
                                              {"C0DE", "Untitled Workspace"}};
    QCOMPARE(*workspaces, expected);
    QVERIFY(!QLabWorkspace::decodeList(QJsonValue(QStringLiteral("badpass"))));
}

void QLabMessagesTest::decodesCues_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("decodes");
    QTest::addColumn<QString>("number");
    QTest::addColumn<bool>("isPaused");
    QTest::addColumn<std::optional<double>>("elapsed");
    QTest::addColumn<std::optional<double>>("duration");
    QTest::addColumn<std::optional<QString>>("parent");
    QTest::addColumn<std::optional<QString>>("timecodeStart");

    const std::optional<double> none;
    const std::optional<QString> noText;
    QTest::newRow("audio cue as QLab 5 sends it")
        << QByteArray(R"({"uniqueID":"A1","number":"12","name":"Rain","type":"Audio",)"
                      R"("isPaused":false,"actionElapsed":3.25,"currentDuration":40,)"
                      R"("parent":"G1"})")
        << true << "12" << false << std::optional(3.25) << std::optional(40.0)
        << std::optional<QString>("G1") << noText;
    QTest::newRow("numbers and Booleans as strings")
        << QByteArray(R"({"uniqueID":"A2","number":7,"type":"Audio","isPaused":"true",)"
                      R"("actionElapsed":"1.5","duration":"12"})")
        << true << "7" << true << std::optional(1.5) << std::optional(12.0) << noText << noText;
    QTest::newRow("currentDuration wins over duration")
        << QByteArray(R"({"uniqueID":"A3","currentDuration":5,"duration":9})") << true << ""
        << false << none << std::optional(5.0) << noText << noText;
    QTest::newRow("empty parent and unparsable elapsed")
        << QByteArray(R"({"uniqueID":"A4","parent":"","actionElapsed":"soon","isPaused":"maybe"})")
        << true << "" << false << none << none << noText << noText;
    QTest::newRow("nan, inf and out-of-range numbers are not numbers")
        << QByteArray(R"({"uniqueID":"A6","actionElapsed":"nan","currentDuration":"-inf",)"
                      R"("framerate":"inf"})")
        << true << "" << false << none << none << noText << noText;
    QTest::newRow("start time key wins over the display name")
        << QByteArray(R"({"uniqueID":"T2","type":"Timecode","startTime":"10:00:00;00",)"
                      R"("displayName":"TC 01:00:00:00"})")
        << true << "" << false << none << none << noText << std::optional<QString>("10:00:00;00");
    QTest::newRow("audio cue named like a timecode")
        << QByteArray(R"({"uniqueID":"A5","type":"Audio","displayName":"TC 01:00:00:00"})") << true
        << "" << false << none << none << noText << noText;
    QTest::newRow("no identity") << QByteArray(R"({"number":"1","name":"lost"})") << false << ""
                                 << false << none << none << noText << noText;
}

void QLabMessagesTest::decodesCues()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, decodes);
    const auto cue = QLabCue::decode(object(json.constData()), kNow);
    QCOMPARE(cue.has_value(), decodes);
    if (!cue)
        return;
    QTEST(cue->number, "number");
    QTEST(cue->isPaused, "isPaused");
    QTEST(cue->actionElapsed, "elapsed");
    QTEST(cue->duration, "duration");
    QTEST(cue->parentID, "parent");
    QTEST(cue->timecodeStart, "timecodeStart");
    QCOMPARE(cue->sampledAt.has_value(), cue->actionElapsed.has_value());
}

void QLabMessagesTest::runningTimecode_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<double>("sinceSample"); // seconds between decoding and asking
    QTest::addColumn<bool>("hasTime");
    QTest::addColumn<double>("start");
    QTest::addColumn<double>("elapsed");
    QTest::addColumn<double>("framesPerSecond");

    const auto rate = [](int index) {
        return QByteArray(R"({"uniqueID":"T","type":"Timecode","startTime":"01:00:00:12",)"
                          R"("actionElapsed":2,"framerate":)") +
               QByteArray::number(index) + "}";
    };
    const double fps[] = {24, 25, 30, 30, 24000.0 / 1001, 24.975, 30000.0 / 1001, 30000.0 / 1001,
                          25, 25};
    for (int index = 0; index < 10; ++index) {
        QTest::addRow("rate index %d", index)
            << rate(index) << 0.0 << true << 3600 + 12 / fps[index] << 2.0 << fps[index];
    }
    QTest::newRow("rate index absent")
        << QByteArray(R"({"uniqueID":"T","type":"Timecode","startTime":"00:00:01:00"})") << 0.0
        << true << 1.0 << 0.0 << 25.0;
    QTest::newRow("rate index as a string, semicolon before the frames")
        << QByteArray(R"({"uniqueID":"T","type":"Timecode","startTime":"10:00:00;15",)"
                      R"("framerate":"6"})")
        << 0.0 << true << 36000 + 15 / (30000.0 / 1001) << 0.0 << 30000.0 / 1001;
    QTest::newRow("running cue adds the time since sampling")
        << QByteArray(R"({"uniqueID":"T","type":"Timecode","startTime":"00:00:00:00",)"
                      R"("actionElapsed":4,"framerate":1})")
        << 1.5 << true << 0.0 << 5.5 << 25.0;
    QTest::newRow("paused cue keeps its elapsed time")
        << QByteArray(R"({"uniqueID":"T","type":"Timecode","startTime":"00:00:00:00",)"
                      R"("actionElapsed":4,"isPaused":true,"framerate":1})")
        << 1.5 << true << 0.0 << 4.0 << 25.0;
    QTest::newRow("start from the display name")
        << QByteArray(R"({"uniqueID":"T","type":"timecode","displayName":"TC 01:00:00:00"})") << 0.0
        << true << 3600.0 << 0.0 << 25.0;
    QTest::newRow("not a timecode cue")
        << QByteArray(R"({"uniqueID":"A","type":"Audio","startTime":"01:00:00:00"})") << 0.0
        << false << 0.0 << 0.0 << 0.0;
    QTest::newRow("timecode cue without a start")
        << QByteArray(R"({"uniqueID":"T","type":"Timecode","displayName":"Main TC"})") << 0.0
        << false << 0.0 << 0.0 << 0.0;
    QTest::newRow("start that does not parse")
        << QByteArray(R"({"uniqueID":"T","type":"Timecode","startTime":"00:61:00:00"})") << 0.0
        << false << 0.0 << 0.0 << 0.0;
}

void QLabMessagesTest::runningTimecode()
{
    QFETCH(QByteArray, json);
    QFETCH(double, sinceSample);
    QFETCH(bool, hasTime);
    const auto cue = QLabCue::decode(object(json.constData()), kNow);
    QVERIFY(cue);
    const WallTime askedAt = addSeconds(kNow, sinceSample);
    const auto time = cue->runningTimecode(askedAt);
    QCOMPARE(time.has_value(), hasTime);
    if (!time)
        return;
    QTEST(time->start, "start");
    QTEST(time->elapsed, "elapsed");
    QTEST(time->framesPerSecond, "framesPerSecond");
    QCOMPARE(time->sampledAt, askedAt);
    QCOMPARE(time->isPaused, cue->isPaused);
}

QTEST_GUILESS_MAIN(QLabMessagesTest)
#include "QLabMessagesTest.moc"
