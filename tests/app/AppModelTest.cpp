// The application model as a whole: each configuration value applied once at start and once
// per real change, extra camera feeds following the settings, a recording of the demo show
// with its cue log and what headless mode says of it, its messages, and the network path
// monitor seeing a veth pair come and go. ("/tavrin/" commands: SurfaceRepliesTest.)

#include "app/AppModel.h"
#include "app/CueLog.h"
#include "app/StatusReporter.h"
#include "support/NetNamespace.h"

#include <QFile>
#include <QGuiApplication>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

#include <functional>
#include <memory>

Q_DECLARE_METATYPE(std::function<void(orvane::AppSettings&)>)

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

} // namespace

class AppModelTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void appliesEachValueOncePerChange_data();
    void appliesEachValueOncePerChange();
    void followsTheExtraCameras();
    void recordsTheDemoWithItsCueLog();
    void saysWhatWentWrong();
    void reportsNetworkChanges();

private:
    std::unique_ptr<AppModel> makeModel(RunOptions options = {});

    std::unique_ptr<QTemporaryDir> dir_;
    quint16 oscPort_ = 0;
};

void AppModelTest::init()
{
    dir_ = std::make_unique<QTemporaryDir>();
    oscPort_ = freeUdpPort();
}

std::unique_ptr<AppModel> AppModelTest::makeModel(RunOptions options)
{
    auto settings = std::make_unique<AppSettings>(
        AppSettings::Location{dir_->filePath("Orvane.json"), dir_->filePath("support")});
    settings->setEosEnabled(false);
    settings->setQlabEnabled(false);
    settings->setOscPort(oscPort_);
    settings->setCodec(RecordingCodec::h264);
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

void AppModelTest::recordsTheDemoWithItsCueLog()
{
    auto model = makeModel({.demo = true});
    StatusReporter reporter(*model);
    QStringList lines;
    connect(&reporter, &StatusReporter::line, this,
            [&](const QString& line) { lines.append(line); });
    model->start();
    QTRY_COMPARE_WITH_TIMEOUT(model->feedState().kind, FeedState::Kind::live, 10000);
    QVERIFY(model->show().activeCue().has_value());
    model->startRecording();
    const QString movie = *model->lastRecording();
    // The cue that was active at the start is the first row, with the demo's timecode.
    QCOMPARE(model->cueLog().size(), 1);
    QVERIFY(model->cueLog()[0].event.startsWith("Cue "));
    QVERIFY(model->cueLog()[0].timecode.startsWith("01:00:"));
    model->addMarker();
    QTest::qWait(300); // a few frames in the movie
    QSignalSpy finished(&model->recording(), &RecordingControl::recordingFinished);
    model->stopRecording();
    QVERIFY(finished.size() == 1 || finished.wait(20000));

    QFile csv(cueLogPath(movie));
    QVERIFY(csv.open(QIODevice::ReadOnly));
    QVERIFY(csv.readAll().contains(",Marker,Marker\n"));
    for (const QString& line :
         QStringList{"The camera is live.", "Recording to “" + movie + "”.",
                     "Saved “" + movie + "”.", "Saved the cue log “" + cueLogPath(movie) + "”."})
        QVERIFY2(lines.contains(line), qPrintable(line));
    QCOMPARE(
        lines.filter(QRegularExpression("^The main camera lost .* while recording\\.$")).size(), 1);
    // A new recording starts a new log, with the cue that is active then.
    model->startRecording();
    QCOMPARE(model->cueLog().size(), 1);
    model->stopRecording();
    QTRY_COMPARE(model->recording().finishingCount(), 0);
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

int main(int argc, char** argv)
{
    // Before any thread starts: threads made later share the private network.
    isolated = NetNamespace::isolateThisProcess(&isolationError);
    QGuiApplication app(argc, argv); // the overlay draws text
    AppModelTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "AppModelTest.moc"
