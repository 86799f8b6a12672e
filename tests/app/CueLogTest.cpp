// The cue log's CSV file, its file names, the rule for which show events add rows, the
// chapters and marker lists made from it, and the journal that keeps it through a crash; and
// recording every running camera together with real capture engines on the test pattern, with
// the cue log's rows and files, the messages, and a failing camera.

#include "app/CueLog.h"
#include "app/MarkerLists.h"
#include "app/RecordingControl.h"
#include "app/RecordingJournal.h"
#include "app/RecordingNames.h"
#include "app/RecordingRecovery.h"
#include "app/ShowEvents.h"
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

class CueLogTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void writesRows_data();
    void writesRows();
    void saysWhyAFileIsNotWritten();
    void namesFiles_data();
    void namesFiles();
    void decidesWhichEventsAddRows();
    void placesMarkersOnFrames_data();
    void placesMarkersOnFrames();
    void writesMarkerLists();
    void readsTheJournalBack_data();
    void readsTheJournalBack();
    void leavesAloneWhatItCannotRecover_data();
    void leavesAloneWhatItCannotRecover();
    void refusesToStartWithoutACamera();
    void recordsEveryCamera();
    void aFailingCameraStopsAlone();

private:
    // For the recording control.
    std::unique_ptr<QTemporaryDir> dir_;
    std::unique_ptr<AppSettings> settings_;
    ManualClock clock_;
};

namespace {

const QByteArray header("Recording Time,Timecode,Event,Detail\n");

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

void CueLogTest::writesRows_data()
{
    QTest::addColumn<double>("elapsed");
    QTest::addColumn<QString>("detail");
    QTest::addColumn<QString>("row");
    const auto row = [](const char* name, double elapsed, const char* detail, const char* row) {
        QTest::newRow(name) << elapsed << QString(detail) << QString(row);
    };
    // The recording time: hours, minutes and seconds, truncated, never negative.
    row("start", 0.0, "x", "00:00:00,,Marker,x");
    row("truncated, not rounded", 3725.9, "x", "01:02:05,,Marker,x");
    row("hours past a day are not wrapped", 90000.0, "x", "25:00:00,,Marker,x");
    row("a hundred hours", 360000.0, "x", "100:00:00,,Marker,x");
    row("a clock set back counts as the start", -3.5, "x", "00:00:00,,Marker,x");
    row("not a number", std::nan(""), "x", "00:00:00,,Marker,x");
    row("infinite", HUGE_VAL, "x", "00:00:00,,Marker,x");
    // The detail: quoted only when it holds a comma, a quote or a line feed. (A comma and quotes:
    // the soak's and the end-to-end test's markers.)
    row("plain, with spaces", 0.0, "Opening Number", "00:00:00,,Marker,Opening Number");
    row("empty", 0.0, "", "00:00:00,,Marker,");
    row("a quote alone", 0.0, "6\" pipe", "00:00:00,,Marker,\"6\"\" pipe\"");
    row("line feed", 0.0, "two\nlines", "00:00:00,,Marker,\"two\nlines\"");
    row("carriage return stays bare", 0.0, "a\rb", "00:00:00,,Marker,a\rb");
    row("accents", 0.0, "Überfahrt – Akt 2", "00:00:00,,Marker,Überfahrt – Akt 2");
}

void CueLogTest::writesRows()
{
    QFETCH(double, elapsed);
    QFETCH(QString, detail);
    QFETCH(QString, row);
    QCOMPARE(cueLogCSV({{elapsed, "", "Marker", detail}}), header + row.toUtf8() + '\n');
}

// (A log written beside each movie: the end-to-end test.)
void CueLogTest::saysWhyAFileIsNotWritten()
{
    QCOMPARE(cueLogCSV({}), header);
    QTemporaryDir dir;
    const auto error = writeCueLog(dir.filePath("missing/folder/log.csv"), {});
    QVERIFY(error.has_value() && !error->isEmpty());
}

// (A label with slashes, and the first extra camera unlabelled: the end-to-end test.)
void CueLogTest::namesFiles_data()
{
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("fallback");
    QTest::addColumn<QString>("name");
    QTest::newRow("empty main") << "" << mainCameraFallback() << "Orvane";
    QTest::newRow("blank is a label") << " " << mainCameraFallback() << " ";
}

void CueLogTest::namesFiles()
{
    QFETCH(QString, label);
    QFETCH(QString, fallback);
    QFETCH(QString, name);
    QTemporaryDir dir;
    const QString stamp = recordingStamp(QDateTime(QDate(2026, 1, 2), QTime(3, 4, 5)));
    QCOMPARE(stamp, QStringLiteral("2026-01-02 03.04.05"));
    const QString movie = moviePath(dir.path(), recordingLabel(label, fallback), stamp);
    QCOMPARE(movie, dir.filePath(name + " 2026-01-02 03.04.05.mov"));
    QCOMPARE(cueLogPath(movie), dir.filePath(name + " 2026-01-02 03.04.05.csv"));
    // An earlier movie of the same second is kept.
    QFile earlier(movie);
    QVERIFY(earlier.open(QIODevice::WriteOnly));
    earlier.close();
    QCOMPARE(moviePath(dir.path(), recordingLabel(label, fallback), stamp),
             dir.filePath(name + " 2026-01-02 03.04.05 2.mov"));
    QCOMPARE(cueLogPath("/r.d/Act 1.2 x.mov"), "/r.d/Act 1.2 x.csv");
    QCOMPARE(cueLogPath("/r/movie"), "/r/movie.csv");
}

void CueLogTest::decidesWhichEventsAddRows()
{
    // A cue cleared from the show adds no row. (A cue fired by the console: the end-to-end test.)
    QCOMPARE(cueChangeRow(std::nullopt), std::nullopt);
    // A QLab cue list adds no row, and a QLab cue without a number reads "QLab". (A row for each
    // start, not for each look at the running cues: the soak, whose pretend QLab starts a cue
    // every 10 s.)
    QSet<QString> running;
    QCOMPARE(qlabStartRows(running, {{"L", "", "Main Cue List", "Cue List"},
                                     {"A", "12", "Thunder", "Audio"},
                                     {"B", "", "Rain loop", "Audio"}}),
             (std::vector<ShowEventRow>{{"QLab 12", "Thunder"}, {"QLab", "Rain loop"}}));
}

void CueLogTest::placesMarkersOnFrames_data()
{
    QTest::addColumn<double>("frameDuration");
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QString>("timecode"); // on a timeline that starts at 01:00:00:00
    const double ntsc = 1001.0 / 30000;
    QTest::newRow("25: the start") << 1 / 25.0 << 0.0 << "01:00:00:00";
    QTest::newRow("25: a time that falls on a frame") << 1 / 25.0 << 0.12 << "01:00:00:03";
    QTest::newRow("25: late in a frame") << 1 / 25.0 << 3725.999 << "02:02:05:24";
    QTest::newRow("25: before the movie's first frame") << 1 / 25.0 << -0.5 << "01:00:00:00";
    QTest::newRow("30: one second") << 1 / 30.0 << 1.0 << "01:00:01:00";
    QTest::newRow("29.97: one second is still frame 29") << ntsc << 1.0 << "01:00:00:29";
    QTest::newRow("29.97: frame 1800") << ntsc << 60.06 << "01:01:00:00";
    QTest::newRow("29.97: an hour runs 3.6 s behind") << ntsc << 3600.0 << "01:59:56:12";
    QTest::newRow("no usable rate counts 30") << 0.0 << 1.0 << "01:00:01:00";
}

void CueLogTest::placesMarkersOnFrames()
{
    QFETCH(double, frameDuration);
    QFETCH(double, seconds);
    QFETCH(QString, timecode);
    const MarkerRate rate = MarkerRate::of(frameDuration);
    QCOMPARE(markerTimecode(markerFrame(seconds, rate), rate, 1), timecode);
    // A row's time in a movie is its time in the recording less the movie's first frame.
    const auto chapters = movieChapters({{seconds + 0.25, "", "Cue 47", "Storm"}}, 0.25);
    QCOMPARE(chapters.size(), std::size_t(1));
    QCOMPARE(chapters[0].title, "Cue 47 Storm");
    QVERIFY(std::abs(chapters[0].seconds - std::max(0.0, seconds)) < 1e-9);
}

void CueLogTest::writesMarkerLists()
{
    QCOMPARE(MarkerRate::of(1001.0 / 30000), (MarkerRate{30, true}));
    QCOMPARE(MarkerRate::of(1001.0 / 24000), (MarkerRate{24, true}));
    const std::vector<MovieChapter> markers = movieChapters(
        {{0.5, "", "Marker", ""}, {62.0, "01:00:00:00", "Marker", "a|b\n\"c\" & <d>"}}, 0.5);
    QCOMPARE(resolveMarkerEDL("Stage 2026-03-14 19.30.05", markers, MarkerRate{30, true}),
             QByteArray("TITLE: Stage 2026-03-14 19.30.05\n"
                        "FCM: NON-DROP FRAME\n\n"
                        "001  001      V     C        "
                        "01:00:00:00 01:00:00:01 01:00:00:00 01:00:00:01  \n"
                        " |C:ResolveColorBlue |M:Marker |D:1\n\n"
                        "002  001      V     C        "
                        "01:01:01:13 01:01:01:14 01:01:01:13 01:01:01:14  \n"
                        " |C:ResolveColorBlue |M:Marker a b \"c\" & <d> |D:1\n\n"));
    const QString xml = QString::fromUtf8(
        premiereMarkerXML("/r/Act 1 x.mov", markers, MarkerRate{25, false}, 90.5));
    for (const char* part :
         {"<!DOCTYPE xmeml>", "<timebase>25</timebase>", "<ntsc>FALSE</ntsc>",
          "<duration>2262</duration>", "<pathurl>file://localhost/r/Act%201%20x.mov</pathurl>",
          "<name>Marker</name>\n   <comment></comment>\n   <in>0</in>",
          "<name>Marker a|b &quot;c&quot; &amp; &lt;d&gt;</name>\n   <comment></comment>\n   "
          "<in>1537</in>"})
        QVERIFY2(xml.contains(QLatin1String(part)), part);
}

void CueLogTest::readsTheJournalBack_data()
{
    QTest::addColumn<QByteArray>("tail");
    QTest::addColumn<int>("skipped");
    QTest::newRow("whole") << QByteArray() << 0;
    QTest::newRow("a torn last line") << QByteArray("{\"elapsed\":9.5,\"event\":\"Cue") << 1;
    QTest::newRow("zeros left by a power cut") << QByteArray(300, '\0') << 1;
    QTest::newRow("a line of another kind") << QByteArray("[1,2]\n{\"elapsed\":\"x\"}\n") << 2;
}

void CueLogTest::readsTheJournalBack()
{
    QFETCH(QByteArray, tail);
    QFETCH(int, skipped);
    QTemporaryDir dir;
    const QString path = RecordingJournal::pathFor(dir.filePath("Act 1-2 x.mov"));
    QCOMPARE(path, dir.filePath("Act 1-2 x.journal"));
    const QList<CueLogEntry> rows = {{0, "", "Cue 1", ""},
                                     {61.25, "01:00:01:07", "Marker", "Scene 1, \"Opening\"\n|\\"},
                                     {3725.5, "", "QLab 12", "Überfahrt – Akt 2 🎭"}};
    QString error;
    auto journal = RecordingJournal::create(path, "Act 1-2 x", false,
                                            {"Act 1-2 x.mov", "Camera 2 x.mov"}, error);
    QVERIFY2(journal, qPrintable(error));
    QVERIFY(RecordingJournal::isInUse(path));
    journal->addRow(rows[0]);
    journal->addMovieStart("Camera 2 x.mov", 0.125, 1001.0 / 30000);
    for (const auto& row : rows.mid(1))
        journal->addRow(row);
    journal.reset(); // a crash closes it as well
    QVERIFY(!RecordingJournal::isInUse(path));
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const auto contents = readJournal(file.readAll() + tail);
    QVERIFY(contents);
    QCOMPARE(contents->name, "Act 1-2 x");
    QCOMPARE(contents->writesCueLog, false);
    QCOMPARE(contents->movies,
             (std::vector<JournalContents::Movie>{{"Act 1-2 x.mov", std::nullopt, 0},
                                                  {"Camera 2 x.mov", 0.125, 1001.0 / 30000}}));
    QCOMPARE(contents->rows, rows);
    QCOMPARE(contents->skippedLines, skipped);
}

void CueLogTest::leavesAloneWhatItCannotRecover_data()
{
    QTest::addColumn<QByteArray>("journal");
    QTest::addColumn<QByteArray>("movie"); // none: no file
    QTest::addColumn<QString>("why");
    const QByteArray header = "{\"recording\":\"A x\",\"movies\":[\"A x.mov\"]}\n";
    const QByteArray started = "{\"movie\":\"A x.mov\",\"offset\":0.1,\"frameDuration\":0.04}\n";
    QTest::newRow("a torn first line")
        << header.left(20) << QByteArray("x") << "“A x”: its journal can't be read.";
    QTest::newRow("the movie is gone")
        << header + started << QByteArray() << "“A x”: the movie “A x.mov” is gone.";
    QTest::newRow("the movie is no movie")
        << header << QByteArray(4096, 'x') << "“A x”: the movie “A x.mov” couldn't be finished. ";
}

void CueLogTest::leavesAloneWhatItCannotRecover()
{
    QFETCH(QByteArray, journal);
    QFETCH(QByteArray, movie);
    QFETCH(QString, why);
    QTemporaryDir dir;
    QFile file(dir.filePath("A x.journal"));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(journal) == journal.size());
    file.close();
    if (!movie.isEmpty()) {
        QFile bytes(dir.filePath("A x.mov"));
        QVERIFY(bytes.open(QIODevice::WriteOnly) && bytes.write(movie) == movie.size());
    }
    const RecoveryReport report = recoverRecordings(dir.path());
    QCOMPARE(report.recovered, QStringList());
    QCOMPARE(report.leftAlone.size(), 1);
    QVERIFY2(report.leftAlone[0].startsWith("Orvane couldn't recover the recording " + why),
             qPrintable(report.leftAlone[0]));
    QVERIFY(report.leftAlone[0].endsWith('.'));
    QVERIFY(file.exists());
}

void CueLogTest::init()
{
    dir_ = std::make_unique<QTemporaryDir>();
    settings_ = std::make_unique<AppSettings>(
        AppSettings::Location{dir_->filePath("config/Orvane.json"), dir_->filePath("support")});
    settings_->setCodec(RecordingCodec::h264);
    clock_.setWallTime(WallTime(std::chrono::seconds(1773516605))); // 2026-03-14 19:30:05 UTC
}

void CueLogTest::cleanup()
{
    settings_.reset();
    dir_.reset();
}

// (A recordings folder that cannot be made: AppModelTest and the end-to-end test.)
void CueLogTest::refusesToStartWithoutACamera()
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

// With the cue log switched off at the stop, so that no file but the movies is written. (With
// it on, the end-to-end test checks the cue logs and marker lists beside every movie, and the
// journal: its rows through a crash, left alone by recovery while recording, gone after the
// stop; and that a second start changes nothing.)
void CueLogTest::recordsEveryCamera()
{
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

    QTest::qWait(300); // a few frames in each movie
    settings_->setWritesCueLog(false);
    QSignalSpy finished(&control, &RecordingControl::recordingFinished);
    bool done = false;
    control.stop([&] { done = true; });
    QVERIFY(!control.isRecording());
    QCOMPARE(control.finishingCount(), 2);
    QVERIFY(finished.wait(20000));
    QVERIFY(done);
    QTRY_COMPARE_WITH_TIMEOUT(control.finishingCount(), 0, 20000);
    // The log stays until the next start, rows come only while recording, and the last movie is
    // remembered.
    control.addMarker("after the stop");
    QCOMPARE(cueLogCSV(control.cueLog()), csv);
    QCOMPARE(control.lastRecording(), paths[0]);
    for (const QString& movie : paths) {
        QVERIFY2(QFileInfo(movie).size() > 0, qPrintable(movie));
        QVERIFY(!QFileInfo::exists(cueLogPath(movie)));
        QVERIFY(!QFileInfo::exists(resolveMarkersPath(movie)));
        QVERIFY(!QFileInfo::exists(premiereMarkersPath(movie)));
    }
    const auto cameras = finished[0][0].value<QList<RecordingControl::Finished>>();
    QCOMPARE(cameras.size(), 2);
    for (const auto& camera : cameras) {
        QVERIFY(camera.outcome.movie && !camera.outcome.error);
        QVERIFY(!camera.cueLog);
    }
}

void CueLogTest::aFailingCameraStopsAlone()
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
    // (When the last camera fails, the recording is over: the end-to-end test's full disk.)
}

QTEST_GUILESS_MAIN(CueLogTest)
#include "CueLogTest.moc"
