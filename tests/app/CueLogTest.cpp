// The cue log's CSV file, its file names and the rule for which show events add rows.

#include "app/CueLog.h"
#include "app/RecordingNames.h"
#include "app/ShowEvents.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace orvane;

class CueLogTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void writesRows_data();
    void writesRows();
    void writesTheFileOrSaysWhyNot();
    void namesFiles_data();
    void namesFiles();
    void decidesWhichEventsAddRows();
    void addsARowPerQLabCueStart();
};

namespace {
const QByteArray header("Recording Time,Timecode,Event,Detail\n");
}

void CueLogTest::writesRows_data()
{
    QTest::addColumn<double>("elapsed");
    QTest::addColumn<QString>("detail");
    QTest::addColumn<QString>("row");
    // The recording time: hours, minutes and seconds, truncated, never negative.
    QTest::newRow("start") << 0.0 << "x"
                           << "00:00:00,,Marker,x";
    QTest::newRow("just under a second") << 0.999 << "x"
                                         << "00:00:00,,Marker,x";
    QTest::newRow("truncated, not rounded") << 3725.9 << "x"
                                            << "01:02:05,,Marker,x";
    QTest::newRow("hours past a day are not wrapped") << 90000.0 << "x"
                                                      << "25:00:00,,Marker,x";
    QTest::newRow("a hundred hours") << 360000.0 << "x"
                                     << "100:00:00,,Marker,x";
    QTest::newRow("a clock set back counts as the start") << -3.5 << "x"
                                                          << "00:00:00,,Marker,x";
    QTest::newRow("not a number") << std::nan("") << "x"
                                  << "00:00:00,,Marker,x";
    QTest::newRow("infinite") << HUGE_VAL << "x"
                              << "00:00:00,,Marker,x";
    // The detail: quoted only when it holds a comma, a quote or a line feed.
    QTest::newRow("plain, with spaces") << 0.0 << "Opening Number"
                                        << "00:00:00,,Marker,Opening Number";
    QTest::newRow("empty") << 0.0 << ""
                           << "00:00:00,,Marker,";
    QTest::newRow("comma and quotes") << 0.0 << "Scene 1, \"Opening\""
                                      << "00:00:00,,Marker,\"Scene 1, \"\"Opening\"\"\"";
    QTest::newRow("a quote alone") << 0.0 << "6\" pipe"
                                   << "00:00:00,,Marker,\"6\"\" pipe\"";
    QTest::newRow("line feed") << 0.0 << "two\nlines"
                               << "00:00:00,,Marker,\"two\nlines\"";
    QTest::newRow("carriage return stays bare") << 0.0 << "a\rb"
                                                << "00:00:00,,Marker,a\rb";
    QTest::newRow("semicolon stays bare") << 0.0 << "a;b"
                                          << "00:00:00,,Marker,a;b";
    QTest::newRow("accents") << 0.0 << "Überfahrt – Akt 2"
                             << "00:00:00,,Marker,Überfahrt – Akt 2";
}

void CueLogTest::writesRows()
{
    QFETCH(double, elapsed);
    QFETCH(QString, detail);
    QFETCH(QString, row);
    QCOMPARE(cueLogCSV({{elapsed, "", "Marker", detail}}), header + row.toUtf8() + '\n');
}

void CueLogTest::writesTheFileOrSaysWhyNot()
{
    QCOMPARE(cueLogCSV({}), header);
    QTemporaryDir dir;
    const QString path = dir.filePath("log.csv");
    QCOMPARE(writeCueLog(path, {{1, "", "Marker", "x"}, {3725.9, "01:00:05:00", "Cue 14.5", "S"}}),
             std::nullopt);
    QFile written(path);
    QVERIFY(written.open(QIODevice::ReadOnly));
    QCOMPARE(written.readAll(), header + "00:00:01,,Marker,x\n01:02:05,01:00:05:00,Cue 14.5,S\n");
    const auto error = writeCueLog(dir.filePath("missing/folder/log.csv"), {});
    QVERIFY(error.has_value() && !error->isEmpty());
}

void CueLogTest::namesFiles_data()
{
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("fallback");
    QTest::addColumn<QString>("name");
    QTest::newRow("slashes") << "a/b/c" << mainCameraFallback() << "a-b-c";
    QTest::newRow("empty main") << "" << mainCameraFallback() << "Orvane";
    QTest::newRow("second extra unlabelled") << "" << extraCameraFallback(1) << "Camera 3";
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
    QCOMPARE(cueChangeRow(EosCue::parse(u"2/14.5 Storm")), (ShowEventRow{"Cue 14.5", "Storm"}));
    QCOMPARE(cueChangeRow(std::nullopt), std::nullopt);
    QCOMPARE(commandRow(ShowCommand::marker("Scene 2")), (ShowEventRow{"Marker", "Scene 2"}));
    for (const ShowCommand& command :
         {ShowCommand::layout("Wide"), ShowCommand::startRecording(), ShowCommand::stopRecording(),
          ShowCommand::toggleRecording()})
        QCOMPARE(commandRow(command), std::nullopt);
}

void CueLogTest::addsARowPerQLabCueStart()
{
    const auto qlab = [](const char* id, const char* number, const char* name, const char* type) {
        QLabCue cue;
        cue.id = id;
        cue.number = number;
        cue.name = name;
        cue.type = type;
        return cue;
    };
    QLabCue sound = qlab("A", "12", "Thunder", "Audio");
    const QLabCue list = qlab("L", "", "Main Cue List", "Cue List");
    const QLabCue unnumbered = qlab("B", "", "Rain loop", "Audio");

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
