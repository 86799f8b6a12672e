// Recording every running camera together with real capture engines on the test pattern:
// names, the cue log rows and files, the messages, and a failing camera.

#include "app/RecordingControl.h"
#include "app/CueLog.h"
#include "app/MarkerLists.h"
#include "app/RecordingJournal.h"
#include "app/RecordingRecovery.h"
#include "base/ManualClock.h"
#include "capture/CaptureEngine.h"
#include "capture/TestPatternSource.h"
#include "settings/AppSettings.h"

#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace orvane;

namespace {

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A small test pattern camera, running.
std::unique_ptr<CaptureEngine> runningCamera()
{
    auto engine = std::make_unique<CaptureEngine>();
    engine->setTestPatternFormat({64, 36, 30});
    QSignalSpy started(engine.get(), &CaptureEngine::framesStarted);
    engine->configure(TestPatternSource::kID, std::nullopt);
    if (!started.wait(10000))
        qFatal("the test pattern did not start");
    return engine;
}

} // namespace

class RecordingControlTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void refusesToStartWithoutACamera();
    void recordsEveryCameraWithItsCueLog_data();
    void recordsEveryCameraWithItsCueLog();
    void aFailingCameraStopsAlone();

private:
    std::unique_ptr<QTemporaryDir> dir_;
    std::unique_ptr<AppSettings> settings_;
    ManualClock clock_;
};

void RecordingControlTest::init()
{
    dir_ = std::make_unique<QTemporaryDir>();
    settings_ = std::make_unique<AppSettings>(
        AppSettings::Location{dir_->filePath("config/Orvane.json"), dir_->filePath("support")});
    settings_->setCodec(RecordingCodec::h264);
    clock_.setWallTime(WallTime(std::chrono::seconds(1773516605))); // 2026-03-14 19:30:05 UTC
}

void RecordingControlTest::cleanup()
{
    settings_.reset();
    dir_.reset();
}

// (A recordings folder that cannot be made: SurfaceRepliesTest and the end-to-end test.)
void RecordingControlTest::refusesToStartWithoutACamera()
{
    RecordingControl control(*settings_, clock_);
    control.setFolder(dir_->filePath("Recordings"));
    QSignalSpy errors(&control, &RecordingControl::errorOccurred);
    QVERIFY(!control.start());
    QCOMPARE(errors.size(), 1);
    QCOMPARE(errors[0][0].toString(), QStringLiteral("There's no camera feed to record."));
    // A camera whose engine is gone counts as none.
    std::unique_ptr<CaptureEngine> camera;
    control.setCameras([&] {
        return std::vector<RecordingControl::Camera>{{camera.get(), "Stage", false}};
    });
    QVERIFY(!control.start());
    QCOMPARE(errors.size(), 2);
    QVERIFY(!control.isRecording());
}

void RecordingControlTest::recordsEveryCameraWithItsCueLog_data()
{
    QTest::addColumn<bool>("writesCueLog");
    QTest::newRow("with cue logs") << true;
    QTest::newRow("without cue logs") << false;
}

void RecordingControlTest::recordsEveryCameraWithItsCueLog()
{
    QFETCH(bool, writesCueLog);
    auto main = runningCamera();
    auto extra = runningCamera();
    RecordingControl control(*settings_, clock_);
    const QString folder = dir_->filePath("Videos/Orvane");
    control.setFolder(folder);
    control.setCameras([&] {
        return std::vector<RecordingControl::Camera>{{main.get(), "Act 1-2", false},
                                                     {extra.get(), "Camera 3", false}};
    });
    QString timecode = "01:00:00:00";
    control.setTimecode([&] { return timecode; });
    control.setActiveCue([] { return RecordingControl::CueRow{"Cue 5", "Preset, \"house\""}; });

    control.addMarker("before the start");
    QVERIFY(control.cueLog().isEmpty());

    QSignalSpy started(&control, &RecordingControl::recordingStartChanged);
    QVERIFY(control.start());
    QCOMPARE(started.size(), 1);
    QCOMPARE(control.recordingStart(), clock_.wallNow());
    const QString stamp =
        toDateTime(clock_.wallNow()).toLocalTime().toString("yyyy-MM-dd HH.mm.ss");
    const QStringList paths = control.recordingPaths();
    QCOMPARE(paths, (QStringList{folder + "/Act 1-2 " + stamp + ".mov",
                                 folder + "/Camera 3 " + stamp + ".mov"}));
    QCOMPARE(control.lastRecording(), paths[0]);
    QVERIFY(main->isRecording());
    QVERIFY(extra->isRecording());
    // A second start while recording changes nothing.
    QVERIFY(control.start());
    QCOMPARE(control.recordingPaths(), paths);

    clock_.advance(61.7);
    timecode = "01:01:01:17";
    control.addMarker("Scene 2");
    clock_.advance(3600);
    timecode.clear();
    control.logEvent("Cue 6", "Storm");
    const QByteArray csv = "Recording Time,Timecode,Event,Detail\n"
                           "00:00:00,01:00:00:00,Cue 5,\"Preset, \"\"house\"\"\"\n"
                           "00:01:01,01:01:01:17,Marker,Scene 2\n"
                           "01:01:01,,Cue 6,Storm\n";
    QCOMPARE(cueLogCSV(control.cueLog()), csv);
    // The rows are in the journal as they happen; recovery leaves a running recording alone.
    const QString journal = RecordingJournal::pathFor(paths[0]);
    QFile journalFile(journal);
    QVERIFY(journalFile.open(QIODevice::ReadOnly));
    QCOMPARE(readJournal(journalFile.readAll())->rows, control.cueLog());
    QCOMPARE(recoverRecordings(folder).sentences(), QStringList());

    QTest::qWait(300); // a few frames in each movie
    settings_->setWritesCueLog(writesCueLog);
    QSignalSpy finished(&control, &RecordingControl::recordingFinished);
    bool done = false;
    control.stop([&] { done = true; });
    QVERIFY(!control.isRecording());
    QCOMPARE(control.finishingCount(), 2);
    QVERIFY(finished.wait(20000));
    QVERIFY(done);
    // Once every movie has its chapters, the journal goes.
    QTRY_COMPARE_WITH_TIMEOUT(control.finishingCount(), 0, 20000);
    QVERIFY(!QFileInfo::exists(journal));
    // The log stays until the next start, and the last movie is remembered.
    control.addMarker("after the stop");
    QCOMPARE(cueLogCSV(control.cueLog()), csv);
    QCOMPARE(control.lastRecording(), paths[0]);
    for (const QString& movie : paths) {
        QVERIFY2(QFileInfo(movie).size() > 0, qPrintable(movie));
        QCOMPARE(contents(cueLogPath(movie)), writesCueLog ? csv : QByteArray());
        QCOMPARE(QFileInfo::exists(resolveMarkersPath(movie)), writesCueLog);
        QCOMPARE(QFileInfo::exists(premiereMarkersPath(movie)), writesCueLog);
    }
    const auto cameras = finished[0][0].value<QList<RecordingControl::Finished>>();
    QCOMPARE(cameras.size(), 2);
    for (const auto& camera : cameras) {
        QVERIFY(camera.outcome.movie && !camera.outcome.error);
        QCOMPARE(camera.cueLog.has_value(), writesCueLog);
    }
}

void RecordingControlTest::aFailingCameraStopsAlone()
{
    auto main = runningCamera();
    auto extra = runningCamera();
    RecordingControl control(*settings_, clock_);
    control.setFolder(dir_->filePath("Recordings"));
    control.setCameras([&] {
        return std::vector<RecordingControl::Camera>{{main.get(), "Orvane", false},
                                                     {extra.get(), "Camera 2", false}};
    });
    QSignalSpy errors(&control, &RecordingControl::errorOccurred);
    QVERIFY(control.start());
    QTest::qWait(200);
    Q_EMIT extra->recordingFailed(CaptureError::writerFailed("No space left on device."));
    QCOMPARE(errors.size(), 1);
    QCOMPARE(errors[0][0].toString(),
             QStringLiteral("A camera stopped recording. The recording couldn't be saved. No "
                            "space left on device."));
    // An encoder that cannot keep up is said once a recording, with the codec's advice.
    Q_EMIT main->recordingFallingBehind();
    Q_EMIT main->recordingFallingBehind();
    QCOMPARE(errors.size(), 2);
    QCOMPARE(errors[1][0].toString(), RecordingControl::fallingBehindMessage(MovieCodec::h264));
    QVERIFY(control.isRecording());
    QVERIFY(main->isRecording());
    QTRY_VERIFY(!extra->isRecording());
    QCOMPARE(control.recordingPaths().size(), 1);
    control.addMarker("still going");

    QSignalSpy finished(&control, &RecordingControl::recordingFinished);
    control.stop();
    QVERIFY(finished.wait(20000));
    const QString mainMovie = *control.lastRecording();
    QCOMPARE(contents(cueLogPath(mainMovie)).count('\n'), 2);
    QTRY_COMPARE(control.finishingCount(), 0);

    // When the last camera fails, the recording is over.
    QVERIFY(control.start());
    Q_EMIT main->recordingFailed(CaptureError::writerFailed("x"));
    Q_EMIT extra->recordingFailed(CaptureError::writerFailed("y"));
    QVERIFY(!control.isRecording());
    QCOMPARE(errors.size(), 4);
    QTRY_COMPARE(control.finishingCount(), 0);
}

QTEST_GUILESS_MAIN(RecordingControlTest)
#include "RecordingControlTest.moc"
