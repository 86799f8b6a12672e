// The cue log's CSV file, its file names and the rule for which show events add rows.

#include "app/CueLog.h"
#include "app/RecordingNames.h"
#include "app/ShowEvents.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace orvane;

class CueLogTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void formatsTimes_data();
    void formatsTimes();
    void escapesFields_data();
    void escapesFields();
    void writesTheWholeFile();
    void placesTheLogBesideTheMovie_data();
    void placesTheLogBesideTheMovie();
    void reportsAFileItCannotWrite();
    void namesMovies_data();
    void namesMovies();
    void keepsAnEarlierMovieOfTheSameSecond();
    void decidesWhichEventsAddRows_data();
    void decidesWhichEventsAddRows();
    void addsARowPerQLabCueStart();
};

void CueLogTest::formatsTimes_data()
{
    QTest::addColumn<double>("elapsed");
    QTest::addColumn<QString>("text");
    QTest::newRow("start") << 0.0 << "00:00:00";
    QTest::newRow("just under a second") << 0.999 << "00:00:00";
    QTest::newRow("truncated, not rounded") << 3725.9 << "01:02:05";
    QTest::newRow("hours past a day are not wrapped") << 90000.0 << "25:00:00";
    QTest::newRow("a hundred hours") << 360000.0 << "100:00:00";
    QTest::newRow("a clock set back counts as the start") << -3.5 << "00:00:00";
    QTest::newRow("not a number") << std::nan("") << "00:00:00";
    QTest::newRow("infinite") << HUGE_VAL << "00:00:00";
}

void CueLogTest::formatsTimes()
{
    QFETCH(double, elapsed);
    QFETCH(QString, text);
    QCOMPARE(cueLogTime(elapsed), text);
}

void CueLogTest::escapesFields_data()
{
    QTest::addColumn<QString>("field");
    QTest::addColumn<QString>("written");
    QTest::newRow("plain, with spaces") << "Opening Number"
                                        << "Opening Number";
    QTest::newRow("empty") << ""
                           << "";
    QTest::newRow("comma and quotes") << "Scene 1, \"Opening\""
                                      << "\"Scene 1, \"\"Opening\"\"\"";
    QTest::newRow("a quote alone") << "6\" pipe"
                                   << "\"6\"\" pipe\"";
    QTest::newRow("line feed") << "two\nlines"
                               << "\"two\nlines\"";
    QTest::newRow("carriage return stays bare") << "a\rb"
                                                << "a\rb";
    QTest::newRow("semicolon stays bare") << "a;b"
                                          << "a;b";
    QTest::newRow("accents") << "Überfahrt – Akt 2"
                             << "Überfahrt – Akt 2";
}

void CueLogTest::escapesFields()
{
    QFETCH(QString, field);
    QFETCH(QString, written);
    QCOMPARE(cueLogField(field), written);
}

void CueLogTest::writesTheWholeFile()
{
    QCOMPARE(cueLogCSV({}), QByteArray("Recording Time,Timecode,Event,Detail\n"));
    const QList<CueLogEntry> entries{
        {0.4, "01:00:00:10", "Cue 1", "Preset"},
        {3725.9, "", "Marker", "Scene 1, \"Opening\""},
        {90000, "01:00:05:00", "Cue 14.5", "Storm"},
    };
    QCOMPARE(cueLogCSV(entries), QByteArray("Recording Time,Timecode,Event,Detail\n"
                                            "00:00:00,01:00:00:10,Cue 1,Preset\n"
                                            "01:02:05,,Marker,\"Scene 1, \"\"Opening\"\"\"\n"
                                            "25:00:00,01:00:05:00,Cue 14.5,Storm\n"));
    QVERIFY(!cueLogCSV(entries).contains('\r'));
}

void CueLogTest::placesTheLogBesideTheMovie_data()
{
    QTest::addColumn<QString>("movie");
    QTest::addColumn<QString>("log");
    QTest::newRow("mov") << "/r/Stage 2026-03-14 19.30.05.mov"
                         << "/r/Stage 2026-03-14 19.30.05.csv";
    QTest::newRow("dots in the folder") << "/r.d/Act 1.2 x.mov"
                                        << "/r.d/Act 1.2 x.csv";
    QTest::newRow("no extension") << "/r/movie"
                                  << "/r/movie.csv";
}

void CueLogTest::placesTheLogBesideTheMovie()
{
    QFETCH(QString, movie);
    QFETCH(QString, log);
    QCOMPARE(cueLogPath(movie), log);
}

void CueLogTest::reportsAFileItCannotWrite()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("log.csv");
    QCOMPARE(writeCueLog(path, {{1, "", "Marker", "x"}}), std::nullopt);
    QFile written(path);
    QVERIFY(written.open(QIODevice::ReadOnly));
    QCOMPARE(written.readAll(),
             QByteArray("Recording Time,Timecode,Event,Detail\n00:00:01,,Marker,x\n"));
    const auto error = writeCueLog(dir.filePath("missing/folder/log.csv"), {});
    QVERIFY(error.has_value());
    QVERIFY(!error->isEmpty());
}

void CueLogTest::namesMovies_data()
{
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("fallback");
    QTest::addColumn<QString>("name");
    QTest::newRow("slash") << "Act 1/2" << mainCameraFallback() << "Act 1-2";
    QTest::newRow("two slashes") << "a/b/c" << mainCameraFallback() << "a-b-c";
    QTest::newRow("empty main") << "" << mainCameraFallback() << "Orvane";
    QTest::newRow("first extra unlabelled") << "" << extraCameraFallback(0) << "Camera 2";
    QTest::newRow("second extra unlabelled") << "" << extraCameraFallback(1) << "Camera 3";
    QTest::newRow("blank is a label") << " " << mainCameraFallback() << " ";
}

void CueLogTest::namesMovies()
{
    QFETCH(QString, label);
    QFETCH(QString, fallback);
    QFETCH(QString, name);
    const QString stamp = recordingStamp(QDateTime(QDate(2026, 3, 14), QTime(19, 30, 5)));
    QCOMPARE(stamp, QStringLiteral("2026-03-14 19.30.05"));
    QCOMPARE(recordingLabel(label, fallback), name);
    QCOMPARE(moviePath("/nowhere", recordingLabel(label, fallback), stamp),
             "/nowhere/" + name + " 2026-03-14 19.30.05.mov");
    QCOMPARE(recordingStamp(QDateTime(QDate(2026, 1, 2), QTime(3, 4, 5))),
             QStringLiteral("2026-01-02 03.04.05"));
}

void CueLogTest::keepsAnEarlierMovieOfTheSameSecond()
{
    QTemporaryDir dir;
    const QString first = moviePath(dir.path(), "Stage", "2026-03-14 19.30.05");
    QFile file(first);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    QCOMPARE(moviePath(dir.path(), "Stage", "2026-03-14 19.30.05"),
             dir.filePath("Stage 2026-03-14 19.30.05 2.mov"));
}

void CueLogTest::decidesWhichEventsAddRows_data()
{
    QTest::addColumn<QString>("what");
    QTest::addColumn<bool>("addsRow");
    QTest::addColumn<QString>("event");
    QTest::addColumn<QString>("detail");
    QTest::newRow("cue change") << "cue 1/47 Storm" << true << "Cue 47"
                                << "Storm";
    QTest::newRow("cue with a point") << "cue 2/14.5 " << true << "Cue 14.5"
                                      << "";
    QTest::newRow("no cue") << "cue none" << false << ""
                            << "";
    QTest::newRow("marker") << "marker Scene 2" << true << "Marker"
                            << "Scene 2";
    QTest::newRow("default marker") << "marker Marker" << true << "Marker"
                                    << "Marker";
    QTest::newRow("layout") << "layout Wide" << false << ""
                            << "";
    QTest::newRow("start") << "start" << false << ""
                           << "";
    QTest::newRow("stop") << "stop" << false << ""
                          << "";
    QTest::newRow("toggle") << "toggle" << false << ""
                            << "";
}

void CueLogTest::decidesWhichEventsAddRows()
{
    QFETCH(QString, what);
    QFETCH(bool, addsRow);
    QFETCH(QString, event);
    QFETCH(QString, detail);
    std::optional<ShowEventRow> row;
    if (what.startsWith("cue ")) {
        row = cueChangeRow(what == "cue none" ? std::nullopt : EosCue::parse(what.mid(4)));
    } else if (what.startsWith("marker ")) {
        row = commandRow(ShowCommand::marker(what.mid(7)));
    } else if (what.startsWith("layout ")) {
        row = commandRow(ShowCommand::layout(what.mid(7)));
    } else if (what == "start") {
        row = commandRow(ShowCommand::startRecording());
    } else if (what == "stop") {
        row = commandRow(ShowCommand::stopRecording());
    } else {
        row = commandRow(ShowCommand::toggleRecording());
    }
    QCOMPARE(row.has_value(), addsRow);
    if (row) {
        QCOMPARE(row->event, event);
        QCOMPARE(row->detail, detail);
    }
}

void CueLogTest::addsARowPerQLabCueStart()
{
    QLabCue sound;
    sound.id = "A";
    sound.number = "12";
    sound.name = "Thunder";
    sound.type = "Audio";
    QLabCue list;
    list.id = "L";
    list.name = "Main Cue List";
    list.type = "Cue List";
    QLabCue unnumbered;
    unnumbered.id = "B";
    unnumbered.name = "Rain loop";
    unnumbered.type = "Audio";

    QSet<QString> running;
    QCOMPARE(qlabStartRows(running, {list, sound}),
             (std::vector<ShowEventRow>{{"QLab 12", "Thunder"}}));
    // Still running, or paused: no new row. A second cue starting: its own row.
    sound.isPaused = true;
    QCOMPARE(qlabStartRows(running, {list, sound, unnumbered}),
             (std::vector<ShowEventRow>{{"QLab", "Rain loop"}}));
    QCOMPARE(qlabStartRows(running, {list, sound, unnumbered}), std::vector<ShowEventRow>{});
    // Stopped, then started again: a row again.
    QCOMPARE(qlabStartRows(running, {unnumbered}), std::vector<ShowEventRow>{});
    QCOMPARE(qlabStartRows(running, {unnumbered, sound}),
             (std::vector<ShowEventRow>{{"QLab 12", "Thunder"}}));
}

QTEST_GUILESS_MAIN(CueLogTest)
#include "CueLogTest.moc"
