// Control surfaces get answers: a "/tavrin/" message sent over real UDP to the running
// application model is carried out as the product's rules say, whatever its argument types,
// and the state of the recording comes back to the sender's own address and port, with the
// sentence of a command that failed; answers and fields are never answered, and whoever asked
// hears again when recording stops.

#include "app/AppModel.h"
#include "osc/OSCMessage.h"

#include <QFile>
#include <QGuiApplication>
#include <QNetworkDatagram>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

using namespace orvane;

namespace {

enum class Before { stopped, recording, noCamera, noFolder };

// Every answer waiting at `surface`, as address and first value.
QVariantMap answers(QUdpSocket& surface)
{
    QVariantMap values;
    while (surface.hasPendingDatagrams())
        for (const OSCMessage& message : decodeOSCPacket(surface.receiveDatagram().data())) {
            QVariant& value = values[QString::fromStdString(message.address)];
            if (const auto* number = std::get_if<std::int32_t>(&message.arguments.at(0)))
                value = *number;
            else if (const auto* text = std::get_if<std::string>(&message.arguments.at(0)))
                value = QString::fromStdString(*text);
        }
    return values;
}

} // namespace

Q_DECLARE_METATYPE(Before)
Q_DECLARE_METATYPE(orvane::OSCMessage)

class SurfaceRepliesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void answersTheSender_data();
    void answersTheSender();
};

void SurfaceRepliesTest::answersTheSender_data()
{
    QTest::addColumn<Before>("before");
    QTest::addColumn<OSCMessage>("message");
    QTest::addColumn<bool>("answered");
    QTest::addColumn<int>("recording");
    QTest::addColumn<QString>("error");  // the beginning of the sentence
    QTest::addColumn<QString>("marker"); // the last cue log row's detail

    const QByteArray blob("\x01\x02", 2);
    const auto row = [](const char* name, Before before, OSCMessage message, int recording,
                        const char* error = "", const char* marker = "") {
        QTest::newRow(name) << before << message << true << recording << QString(error)
                            << QString(marker);
    };
    row("state", Before::stopped, {"/tavrin/state", {}}, 0);
    row("start, in any case", Before::stopped, {"/TAVRIN/Record/Start", {}}, 1);
    row("start while recording", Before::recording, {"/tavrin/record/start", {}}, 1);
    row("toggle with a float", Before::recording, {"/tavrin/record", {2.5f}}, 0);
    row("toggle with a blob", Before::stopped, {"/tavrin/record/toggle", {blob}}, 1);
    row("marker with a number", Before::recording, {"/tavrin/marker", {std::int32_t(7)}}, 1, "",
        "7");
    row("marker with a blob", Before::recording, {"/tavrin/marker", {blob}}, 1, "", "Marker");
    row("marker while stopped", Before::stopped, {"/tavrin/marker", {std::string("Fight")}}, 0,
        "Orvane isn't recording, so the marker wasn't added.");
    row("layout without a name", Before::stopped, {"/tavrin/layout", {}}, 0);
    row("layout named by a number", Before::stopped, {"/tavrin/layout", {std::int32_t(3)}}, 0,
        "There's no saved layout named “3”.");
    row("unknown word", Before::recording, {"/tavrin/nonsense", {true}}, 1);
    row("start without a camera", Before::noCamera, {"/tavrin/record/start", {}}, 0,
        "There's no camera feed to record.");
    row("start where the folder cannot be made", Before::noFolder, {"/tavrin/record", {}}, 0,
        "Orvane couldn't create the recordings folder in Videos. ");
    const auto unanswered = [](const char* name, OSCMessage message) {
        QTest::newRow(name) << Before::stopped << message << false << 0 << QString() << QString();
    };
    unanswered("an answer", {"/tavrin/reply/recording", {std::int32_t(1)}});
    unanswered("a field", {"/tavrin/field/Scene", {std::string("2")}});
}

void SurfaceRepliesTest::answersTheSender()
{
    QFETCH(Before, before);
    QFETCH(OSCMessage, message);
    QFETCH(bool, answered);
    QFETCH(int, recording);
    QFETCH(QString, error);
    QFETCH(QString, marker);

    QTemporaryDir dir;
    QUdpSocket probe;
    QVERIFY(probe.bind(QHostAddress::LocalHost, 0));
    const quint16 port = probe.localPort();
    probe.close();
    auto settings = std::make_unique<AppSettings>(
        AppSettings::Location{dir.filePath("Orvane.json"), dir.filePath("support")});
    settings->setEosEnabled(false);
    settings->setQlabEnabled(false);
    settings->setOscPort(port);
    settings->setCodec(RecordingCodec::h264);
    settings->setCameraLabel("Act 1/2");
    if (before == Before::noCamera)
        settings->setCameraID(QStringLiteral("/dev/video-missing"));
    QVERIFY(QFile(dir.filePath("file")).open(QIODevice::WriteOnly));
    RunOptions options;
    options.recordingsFolder = dir.filePath(before == Before::noFolder ? "file/Videos" : "Videos");
    AppModel model(std::move(settings), options);
    model.engine().setTestPatternFormat({96, 54, 30});
    model.start();
    if (before != Before::noCamera)
        QTRY_COMPARE_WITH_TIMEOUT(model.feedState().kind, FeedState::Kind::live, 10000);
    QTRY_COMPARE(model.input().listener().state().kind, OSCListener::State::Kind::listening);
    if (before == Before::recording)
        QVERIFY(model.recording().start());

    // The surface on an address of its own; a second one asks for the state afterwards.
    // Messages are handled in order, so once the second has its answer, the first has all.
    QUdpSocket surface;
    QUdpSocket checker;
    QVERIFY(surface.bind(QHostAddress("127.0.0.2"), 0));
    QVERIFY(checker.bind(QHostAddress::LocalHost, 0));
    surface.writeDatagram(encodeOSC(message), QHostAddress::LocalHost, port);
    checker.writeDatagram(encodeOSC({"/tavrin/state", {}}), QHostAddress::LocalHost, port);
    QTRY_VERIFY(checker.hasPendingDatagrams());
    const QVariantMap checked = answers(checker);
    QCOMPARE(checked.value("/tavrin/reply/error"), QVariant(QString()));
    QVERIFY(checked.value("/tavrin/reply/minutesleft").toInt() > 0);

    const QVariantMap got = answers(surface);
    QCOMPARE(model.isRecording(), recording == 1);
    if (!answered) {
        QVERIFY2(got.isEmpty(), qPrintable(got.keys().join(' ')));
        return;
    }
    QCOMPARE(got.value("/tavrin/reply/recording"), QVariant(recording));
    const QString sentence = got.value("/tavrin/reply/error").toString();
    QVERIFY2(error.isEmpty() ? sentence.isEmpty() : sentence.startsWith(error),
             qPrintable(sentence));
    if (!error.isEmpty() && before != Before::stopped)
        QCOMPARE(model.errorMessage(), std::optional<QString>(sentence));
    if (!marker.isEmpty())
        QCOMPARE(model.cueLog().last().detail, marker);
    if (recording == 0)
        return;

    QVERIFY2(got.value("/tavrin/reply/movie").toString().startsWith("Act 1-2 "),
             qPrintable(got.value("/tavrin/reply/movie").toString()));
    // Stopped from the window: whoever asked is told, without an error.
    model.stopRecording();
    QTRY_VERIFY(checker.hasPendingDatagrams());
    const QVariantMap told = answers(checker);
    QCOMPARE(told.value("/tavrin/reply/recording"), QVariant(0));
    QVERIFY(!told.contains("/tavrin/reply/error"));
    QTRY_COMPARE(model.recording().finishingCount(), 0);
}

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv); // the overlay draws text
    SurfaceRepliesTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "SurfaceRepliesTest.moc"
