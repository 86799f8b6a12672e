// The application model as a whole: each configuration value applied once at start and once
// per real change, extra camera feeds following the settings, its messages, the network path
// monitor seeing a veth pair come and go, and control surfaces getting answers: a "/tavrin/"
// message sent over real UDP is carried out whatever its argument types, and the state of the
// recording comes back to the sender's own address and port, with the sentence of a command
// that failed; answers and fields are never answered, and whoever asked hears again when
// recording stops. (A recording of the demo show and what headless mode says of it: the
// end-to-end test.) And the Eos settings with the link: edits reach the link, and what the
// link reports is kept in the settings and applied once, never half-written.

#include "app/AppModel.h"
#include "app/EosSettings.h"
#include "osc/OSCMessage.h"
#include "support/NetNamespace.h"

#include <QFile>
#include <QGuiApplication>
#include <QNetworkDatagram>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

#include <functional>
#include <memory>

Q_DECLARE_METATYPE(std::function<void(orvane::AppSettings&)>)
Q_DECLARE_METATYPE(std::function<void(orvane::EosConnection&)>)

using namespace orvane;

namespace {

bool isolated = false;
QString isolationError;

quint16 freeUdpPort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress::LocalHost, 0);
    return probe.localPort();
}

// One change to the settings, made once the model runs.
using Change = std::function<void(AppSettings&)>;

// One report of the Eos link.
using Report = std::function<void(EosConnection&)>;

// What the model meets when a surface's command arrives.
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

class AppModelTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void appliesEachValueOncePerChange_data();
    void appliesEachValueOncePerChange();
    void followsTheExtraCameras();
    void mirrorsTheMainCameraAndSetsItsGain();
    void saysWhatWentWrong();
    void reportsNetworkChanges();
    void answersTheSender_data();
    void answersTheSender();
    void keepsEosReportsAndAppliesThemWhole_data();
    void keepsEosReportsAndAppliesThemWhole();
    void eosEditsReachTheLink();

private:
    std::unique_ptr<AppModel> makeModel(RunOptions options = {});
    std::unique_ptr<AppSettings> makeSettings();

    std::unique_ptr<QTemporaryDir> dir_;
    quint16 oscPort_ = 0;
};

void AppModelTest::init()
{
    dir_ = std::make_unique<QTemporaryDir>();
    oscPort_ = freeUdpPort();
}

std::unique_ptr<AppSettings> AppModelTest::makeSettings()
{
    return std::make_unique<AppSettings>(
        AppSettings::Location{dir_->filePath("Orvane.json"), dir_->filePath("support")});
}

std::unique_ptr<AppModel> AppModelTest::makeModel(RunOptions options)
{
    auto settings = makeSettings();
    settings->setEosEnabled(false);
    settings->setQlabEnabled(false);
    settings->setOscPort(oscPort_);
    settings->setCodec(RecordingCodec::h264);
    if (!options.recordingsFolder)
        options.recordingsFolder = dir_->filePath("Videos/Orvane");
    auto model = std::make_unique<AppModel>(std::move(settings), options);
    model->engine().setTestPatternFormat({96, 54, 30});
    return model;
}

void AppModelTest::appliesEachValueOncePerChange_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<int>("capture");
    QTest::addColumn<int>("network");
    QTest::addColumn<int>("extra");
    QTest::addColumn<bool>("overlay");
    const auto row = [](const char* name, int capture, int network, int extra, bool overlay,
                        Change change) {
        QTest::newRow(name) << change << capture << network << extra << overlay;
    };
    row("the same OSC port", 0, 0, 0, false, [](AppSettings& s) { s.setOscPort(s.oscPort()); });
    row("another OSC port", 0, 1, 0, false, [](AppSettings& s) { s.setOscPort(freeUdpPort()); });
    row("blanks around the QLab host", 0, 0, 0, false,
        [](AppSettings& s) { s.setQlabHost("  stage-mac.local "); });
    row("another QLab host", 0, 1, 0, false,
        [](AppSettings& s) { s.setQlabHost("booth-mac.local"); });
    row("camera label", 0, 0, 0, true, [](AppSettings& s) { s.setCameraLabel("Balcony"); });
    row("sound on, no microphone chosen", 0, 0, 0, false,
        [](AppSettings& s) { s.setRecordsAudio(true); });
    row("microphone while recording sound", 1, 0, 0, false, [](AppSettings& s) {
        s.setRecordsAudio(true);
        s.setAudioDeviceID("orvane:tone");
    });
    row("microphone, sound off", 0, 0, 0, false, [](AppSettings& s) {
        s.setRecordsAudio(false);
        s.setAudioDeviceID("orvane:tone");
    });
    row("web viewer port", 0, 1, 0, false,
        [](AppSettings& s) { s.setWebViewerPort(s.webViewerPort() + 1); });
    row("overlay scale", 0, 0, 0, true,
        [](AppSettings& s) { s.setOverlayScale(s.overlayScale() * 2); });
    row("an extra camera", 0, 0, 1, true, [](AppSettings& s) {
        s.setExtraCameras(
            {ExtraCamera{QUuid::createUuid(), std::nullopt, std::nullopt, "Wings", false}});
    });
    row("cue log switch", 0, 0, 0, false,
        [](AppSettings& s) { s.setWritesCueLog(!s.writesCueLog()); });
}

void AppModelTest::appliesEachValueOncePerChange()
{
    QFETCH(Change, change);
    QFETCH(int, capture);
    QFETCH(int, network);
    QFETCH(int, extra);
    QFETCH(bool, overlay);
    auto model = makeModel();
    model->settings().setQlabHost("stage-mac.local");
    model->start();
    model->start(); // a second start starts nothing more
    const auto before = model->applyCountsForTesting();
    QCOMPARE(before.capture, 1);
    QCOMPARE(before.network, 1);
    QCOMPARE(before.extra, 1);
    QVERIFY(before.overlay >= 1);
    // Let the camera come up, so that its state changes count for nothing here.
    QTRY_COMPARE_WITH_TIMEOUT(model->feedState().kind, FeedState::Kind::live, 10000);
    const auto settled = model->applyCountsForTesting();
    QCOMPARE(settled.capture, 1);

    change(model->settings());
    const auto after = model->applyCountsForTesting();
    QCOMPARE(after.capture - settled.capture, capture);
    QCOMPARE(after.network - settled.network, network);
    QCOMPARE(after.extra - settled.extra, extra);
    QCOMPARE(after.overlay > settled.overlay, overlay);
}

void AppModelTest::followsTheExtraCameras()
{
    auto model = makeModel();
    model->start();
    const ExtraCamera a{QUuid::createUuid(), std::nullopt, std::nullopt, "Wings", false};
    const ExtraCamera b{QUuid::createUuid(), QStringLiteral("/dev/video9"),
                        QStringLiteral("Booth Cam"), "", true};
    QSignalSpy feedsChanged(model.get(), &AppModel::extraFeedsChanged);
    model->settings().setExtraCameras({a, b});
    QCOMPARE(feedsChanged.size(), 1);
    auto feeds = model->extraFeeds();
    QCOMPARE(feeds.size(), std::size_t(2));
    QCOMPARE(feeds[0]->id(), a.id);
    QCOMPARE(feeds[1]->id(), b.id);
    QCOMPARE(feeds[0]->state(), FeedState::of(FeedState::Kind::unassigned));
    QCOMPARE(feeds[1]->state(), FeedState::disconnected("Booth Cam"));
    CameraFeed* kept = feeds[1];

    // Removing the first stops and drops exactly that feed; the other stays as it was.
    model->settings().setExtraCameras({b});
    feeds = model->extraFeeds();
    QCOMPARE(feeds.size(), std::size_t(1));
    QCOMPARE(feeds[0], kept);
    QCOMPARE(feedsChanged.size(), 2);
    QCOMPARE(model->overlayUpdate().labels.value(b.id), QString());
    QCOMPARE(model->overlayUpdate().labels.value(QUuid()), model->settings().cameraLabel());
}

// As stored when Orvane starts, and at once when changed.
void AppModelTest::mirrorsTheMainCameraAndSetsItsGain()
{
    makeSettings()->setIsMirrored(true);
    auto model = makeModel();
    QVERIFY(model->engine().isMirrored());
    model->settings().setIsMirrored(false);
    model->settings().setAudioGain(0.25);
    QVERIFY(!model->engine().isMirrored());
    QCOMPARE(model->engine().gain(), 0.25f);
}

void AppModelTest::saysWhatWentWrong()
{
    auto model = makeModel();
    model->settings().setCameraID(QStringLiteral("/dev/video-missing"));
    model->start();
    QCOMPARE(model->feedState(), FeedState::disconnected("The camera"));

    QFile notes(dir_->filePath("notes.txt"));
    QVERIFY(notes.open(QIODevice::WriteOnly));
    notes.write("not a picture");
    notes.close();
    model->setWatermarkImage(notes.fileName());
    QCOMPARE(model->errorMessage(),
             std::optional<QString>("Orvane couldn't read “notes.txt” as an image. Try a PNG or "
                                    "JPEG."));
    QVERIFY(!model->watermarkImage().has_value());

    QImage logo(8, 8, QImage::Format_ARGB32);
    logo.fill(Qt::red);
    QVERIFY(logo.save(dir_->filePath("Logo.PNG"), "PNG"));
    QSignalSpy watermark(model.get(), &AppModel::watermarkImageChanged);
    model->setWatermarkImage(dir_->filePath("Logo.PNG"));
    QCOMPARE(watermark.size(), 1);
    QCOMPARE(model->settings().watermarkImageFile(), std::optional<QString>("Watermark.png"));
    QCOMPARE(model->overlayFeed().sources().watermarkImage->size(), QSize(8, 8));
    model->clearWatermarkImage();
    QVERIFY(!model->watermarkImage().has_value());
}

void AppModelTest::reportsNetworkChanges()
{
    NetworkPathMonitor monitor;
    QSignalSpy changes(&monitor, &NetworkPathMonitor::interfacesChanged);
    monitor.update({"lo"}); // the first look only records
    monitor.update({"veth0", "lo"});
    monitor.update({"lo", "veth0"}); // the same list in another order reports nothing
    QCOMPARE(changes.size(), 1);
    QCOMPARE(changes[0][0].toStringList(), (QStringList{"lo", "veth0"}));

    if (!isolated)
        QSKIP(qPrintable("needs a private network namespace: " + isolationError));
    auto model = makeModel();
    model->start();
    QSignalSpy restarted(model.get(), &AppModel::networkRestarted);
    model->pathMonitor().check();
    QCOMPARE(restarted.size(), 0);
    QString error;
    auto host = NetNamespace::create("pathmon", QHostAddress("10.77.0.1"),
                                     QHostAddress("10.77.0.2"), 24, &error);
    QVERIFY2(host, qPrintable(error));
    model->pathMonitor().check();
    QCOMPARE(restarted.size(), 1);
    QVERIFY(restarted[0][0].toStringList().contains(host->localInterface()));
    // The listener was restarted and is back on its port.
    QTRY_VERIFY(model->input().listener().state().kind == OSCListener::State::Kind::listening);
    model->pathMonitor().check();
    QCOMPARE(restarted.size(), 1);
    const QString gone = host->localInterface();
    host.reset();
    model->pathMonitor().check();
    QCOMPARE(restarted.size(), 2);
    QVERIFY(!restarted[1][0].toStringList().contains(gone));
}

void AppModelTest::answersTheSender_data()
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

void AppModelTest::answersTheSender()
{
    QFETCH(Before, before);
    QFETCH(OSCMessage, message);
    QFETCH(bool, answered);
    QFETCH(int, recording);
    QFETCH(QString, error);
    QFETCH(QString, marker);

    QVERIFY(QFile(dir_->filePath("file")).open(QIODevice::WriteOnly));
    RunOptions options;
    if (before == Before::noFolder)
        options.recordingsFolder = dir_->filePath("file/Videos");
    auto model = makeModel(options);
    model->settings().setCameraLabel("Act 1/2");
    if (before == Before::noCamera)
        model->settings().setCameraID(QStringLiteral("/dev/video-missing"));
    model->start();
    if (before != Before::noCamera)
        QTRY_COMPARE_WITH_TIMEOUT(model->feedState().kind, FeedState::Kind::live, 10000);
    QTRY_COMPARE(model->input().listener().state().kind, OSCListener::State::Kind::listening);
    if (before == Before::recording)
        QVERIFY(model->recording().start());

    // The surface on an address of its own; a second one asks for the state afterwards.
    // Messages are handled in order, so once the second has its answer, the first has all.
    QUdpSocket surface;
    QUdpSocket checker;
    QVERIFY(surface.bind(QHostAddress("127.0.0.2"), 0));
    QVERIFY(checker.bind(QHostAddress::LocalHost, 0));
    surface.writeDatagram(encodeOSC(message), QHostAddress::LocalHost, oscPort_);
    checker.writeDatagram(encodeOSC({"/tavrin/state", {}}), QHostAddress::LocalHost, oscPort_);
    QTRY_VERIFY(checker.hasPendingDatagrams());
    const QVariantMap checked = answers(checker);
    QCOMPARE(checked.value("/tavrin/reply/error"), QVariant(QString()));
    QVERIFY(checked.value("/tavrin/reply/minutesleft").toInt() > 0);

    const QVariantMap got = answers(surface);
    QCOMPARE(model->isRecording(), recording == 1);
    if (!answered) {
        QVERIFY2(got.isEmpty(), qPrintable(got.keys().join(' ')));
        return;
    }
    QCOMPARE(got.value("/tavrin/reply/recording"), QVariant(recording));
    const QString sentence = got.value("/tavrin/reply/error").toString();
    QVERIFY2(error.isEmpty() ? sentence.isEmpty() : sentence.startsWith(error),
             qPrintable(sentence));
    if (!error.isEmpty() && before != Before::stopped)
        QCOMPARE(model->errorMessage(), std::optional<QString>(sentence));
    if (!marker.isEmpty())
        QCOMPARE(model->cueLog().last().detail, marker);
    if (recording == 0)
        return;

    QVERIFY2(got.value("/tavrin/reply/movie").toString().startsWith("Act 1-2 "),
             qPrintable(got.value("/tavrin/reply/movie").toString()));
    // Stopped from the window: whoever asked is told, without an error.
    model->stopRecording();
    QTRY_VERIFY(checker.hasPendingDatagrams());
    const QVariantMap told = answers(checker);
    QCOMPARE(told.value("/tavrin/reply/recording"), QVariant(0));
    QVERIFY(!told.contains("/tavrin/reply/error"));
    QTRY_COMPARE(model->recording().finishingCount(), 0);
}

void AppModelTest::keepsEosReportsAndAppliesThemWhole_data()
{
    QTest::addColumn<Report>("report");
    QTest::addColumn<QString>("host");
    QTest::addColumn<std::optional<QString>>("consoleID");
    QTest::addColumn<bool>("enabled");

    const Report adopted = [](EosConnection& c) {
        Q_EMIT c.consoleAdopted({"10.0.0.7", std::nullopt, "ION-B", std::nullopt});
    };
    QTest::newRow("adopted") << adopted << "10.0.0.7" << std::optional<QString>("ION-B") << true;
    QTest::newRow("forgotten") << Report([](EosConnection& c) { Q_EMIT c.consoleForgotten(); })
                               << "" << std::optional<QString>() << false;
    QTest::newRow("turned on") << Report([](EosConnection& c) { Q_EMIT c.turnedOn(); })
                               << "10.0.0.5" << std::optional<QString>("ION-A") << true;
}

void AppModelTest::keepsEosReportsAndAppliesThemWhole()
{
    QFETCH(Report, report);
    QFETCH(QString, host);
    QFETCH(std::optional<QString>, consoleID);
    QFETCH(bool, enabled);

    const auto settings = makeSettings();
    settings->setEosEnabled(false);
    settings->setEosHost(QStringLiteral("10.0.0.5"));
    settings->setEosNetwork(NetworkKind::wired);
    settings->setEosConsoleID(QStringLiteral("ION-A"));
    settings->setEosConsoleName(QStringLiteral("Booth"));
    EosConnection connection;
    auto* binding = new EosSettings(connection, *settings);
    binding->apply();

    // Every configuration the link is given from here on.
    QList<EosConnection::Configuration> applied;
    connect(&connection, &EosConnection::configurationChanged, this,
            [&] { applied.append(*connection.configuration()); });
    report(connection);
    QCOMPARE(settings->eosHost(), host);
    QCOMPARE(settings->eosConsoleID(), consoleID);
    QCOMPARE(settings->eosEnabled(), enabled);
    QCOMPARE(applied.size(), 1); // once, with every key written
    QCOMPARE(applied.front(), eosConfiguration(*settings));
}

void AppModelTest::eosEditsReachTheLink()
{
    const auto settings = makeSettings();
    EosConnection connection;
    new EosSettings(connection, *settings);
    QCOMPARE(connection.configuration(), std::nullopt); // nothing until applied or edited
    settings->setEosHost(QStringLiteral("  ion.local "));
    QCOMPARE(connection.configuration()->host, QStringLiteral("  ion.local "));
    settings->setEosConsoleName(QStringLiteral("Booth Gio"));
    QCOMPARE(connection.configuration()->consoleName, std::optional<QString>("Booth Gio"));
    settings->setEosPort(3032);
    settings->setEosFraming(OSCFraming::lengthPrefixed);
    QCOMPARE(*connection.configuration(), eosConfiguration(*settings));
    QCOMPARE(connection.statusText(), QStringLiteral("Connecting…"));
    settings->setEosEnabled(false);
    QCOMPARE(connection.statusText(), QStringLiteral("Off"));
}

int main(int argc, char** argv)
{
    // Before any thread starts: threads made later share the private network.
    isolated = NetNamespace::isolateThisProcess(&isolationError);
    QGuiApplication app(argc, argv); // the overlay draws text
    AppModelTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "AppModelTest.moc"
