#include "capture/FinishMovie.h"

#include "MovieProbe.h"
#include "base/ManualClock.h"
#include "capture/Frame.h"
#include "capture/FramePool.h"
#include "capture/MovieWriter.h"
#include "capture/TestPatternSource.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sys/resource.h>

using namespace orvane;

namespace {

// How the movie on the disk came to be.
enum class Left {
    killed,         // the program died: no trailer, the fragment being made is missing
    torn,           // the program died while a fragment was written: it ends mid-way
    finishedBefore, // already ordinary, with chapters of its own
};

// Writes 100 pictures of the test pattern at 30 per second, with sound, into a movie at `path`.
void writeMovie(const QString& path, Left left)
{
    QString error;
    auto writer = MovieWriter::create(path, {MovieCodec::h264, 320, 180}, true, error);
    QVERIFY2(writer, qPrintable(error));
    FramePool pool(320, 180, 1);
    ManualClock clock;
    TestPatternSource pattern(clock, 320, 180, 30);
    std::vector<float> sound(1600 * 2, 0.1f); // 1/30 s of stereo
    for (int i = 0; i < 100; ++i) {
        std::shared_ptr<Frame> frame = pool.acquire();
        pattern.paint(*frame, i);
        QVERIFY(writer->writeVideo(std::move(frame), i) && writer->writeAudio(sound.data(), 1600));
    }
    if (left == Left::finishedBefore)
        QVERIFY(writer->finish());
    writer.reset();
    if (left == Left::torn) {
        QFile file(path);
        QVERIFY(file.resize(file.size() - 20000));
    }
    if (left == Left::finishedBefore)
        QCOMPARE(finishMovie(path, {{1.0, "old"}}).result, FinishedMovie::Result::finished);
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

Q_DECLARE_METATYPE(Left)

// A recording must survive the death of the program: the movie a crash leaves plays, and is
// made ordinary later. (The movie a stopped recording leaves is finished in the recorder's
// own test.)
class FinishMovieTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void makesAnOrdinaryMovieWithChapters_data()
    {
        QTest::addColumn<Left>("left");
        QTest::addColumn<int>("minimumFrames");
        QTest::newRow("killed: the last fragment is lost; a full disk at first")
            << Left::killed << 60;
        QTest::newRow("killed while writing: torn last fragment") << Left::torn << 30;
        QTest::newRow("finished before: chapters replaced") << Left::finishedBefore << 100;
    }
    void makesAnOrdinaryMovieWithChapters()
    {
        QFETCH(Left, left);
        QFETCH(int, minimumFrames);
        QTemporaryDir folder;
        const QString path = folder.filePath("Show 2026-11-23.mov");
        writeMovie(path, left);
        if (QTest::currentTestFailed())
            return;
        if (left == Left::killed) {
            // The disk fills up half-way through the copy (writes beyond this size fail): the
            // movie is left as it was, and is finished below once there is room again.
            const QByteArray before = contents(path);
            std::signal(SIGXFSZ, SIG_IGN);
            rlimit saved{};
            QCOMPARE(::getrlimit(RLIMIT_FSIZE, &saved), 0);
            rlimit limit = saved;
            limit.rlim_cur = rlim_t(before.size() / 2);
            QCOMPARE(::setrlimit(RLIMIT_FSIZE, &limit), 0);
            const FinishedMovie full = finishMovie(path, {{0.0, "Q 1"}});
            QCOMPARE(::setrlimit(RLIMIT_FSIZE, &saved), 0);
            QCOMPARE(full.result, FinishedMovie::Result::noRoom);
            QCOMPARE(full.message, "There isn't enough room on the disk to finish the movie.");
            QCOMPARE(contents(path), before);
        }
        const FinishedMovie result = finishMovie(
            path, {{0.5, "Q 12 Blackout"}, {0.0, "Q 11 «Doors»"}, {500.0, "past the end"}});
        QVERIFY2(result.result == FinishedMovie::Result::finished, qPrintable(result.message));
        QCOMPARE(result.chapters, 2);

        const QStringList boxes = topLevelBoxes(path);
        QVERIFY2(boxes.contains("moov") && !boxes.contains("moof"), qPrintable(boxes.join(' ')));
        const auto movie = probeMovie(path);
        QVERIFY(movie && movie->stream("video") && movie->count("audio") == 1);
        const int frames = movie->stream("video")->frameCount;
        QVERIFY2(frames >= minimumFrames && frames <= 100, qPrintable(QString::number(frames)));
        const auto& chapters = movie->chapters;
        QCOMPARE(int(chapters.size()), 2);
        QCOMPARE(chapters[0].title, "Q 11 «Doors»");
        QCOMPARE(std::pair(chapters[0].start, chapters[0].end), std::pair(0.0, 0.5));
        QCOMPARE(chapters[1].title, "Q 12 Blackout");
        QVERIFY2(std::abs(chapters[1].end - movie->duration) < 0.05,
                 qPrintable(QString("%1 s, %2 s").arg(chapters[1].end).arg(movie->duration)));
        QCOMPARE(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden),
                 QStringList{"Show 2026-11-23.mov"});
    }

    // kill -9 in the middle of a real recording leaves a movie that plays and holds every
    // fragment written before the kill.
    void aKilledRecordingStillPlays_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::newRow("HEVC with sound") << QStringList{"--codec", "hevc", "--sound"};
        QTest::newRow("ProRes 422 Proxy") << QStringList{"--codec", "prores"};
    }
    void aKilledRecordingStillPlays()
    {
        QFETCH(QStringList, options);
        QTemporaryDir folder;
        QProcess orvane;
        orvane.start(qEnvironmentVariable("ORVANE_EXECUTABLE"),
                     QStringList{"test-recording", "--seconds", "60", "--size", "640x360", "--out",
                                 folder.path()} +
                         options);
        QByteArray output;
        while (!output.contains('\n')) {
            QVERIFY2(orvane.waitForReadyRead(20000), orvane.readAllStandardError().constData());
            output += orvane.readAllStandardOutput();
        }
        QVERIFY2(output.startsWith("recording: "), output.constData());
        const QString path = QString::fromLocal8Bit(output.mid(11).trimmed());
        QElapsedTimer recording;
        recording.start();
        // Killed once two fragments are on the disk: the first is whole, the second may not be.
        QTRY_VERIFY_WITH_TIMEOUT(topLevelBoxes(path).count("moof") >= 2, 20000);
        ::kill(pid_t(orvane.processId()), SIGKILL);
        const double recorded = double(recording.elapsed()) / 1000;
        QVERIFY(orvane.waitForFinished(10000));
        QCOMPARE(orvane.exitStatus(), QProcess::CrashExit);

        QCOMPARE(QDir(folder.path()).entryList({"*.mov"}).size(), 1);
        const auto movie = probeMovie(path);
        QVERIFY2(movie, "ffprobe could not read the movie");
        const ProbedStream* video = movie->stream("video");
        QVERIFY(video && video->width == 640 && video->frameCount > 0);
        QVERIFY2(video->duration >= 0.9 && video->duration <= recorded + 0.5,
                 qPrintable(QString("%1 s of %2 s").arg(video->duration).arg(recorded)));
        QCOMPARE(movie->count("audio"), options.contains("--sound") ? 1 : 0);
        // Every picture in it decodes.
        QVERIFY(runTool("ffmpeg", {"-v", "error", "-xerror", "-i", path, "-f", "null", "-"}));
    }
};

QTEST_GUILESS_MAIN(FinishMovieTest)
#include "FinishMovieTest.moc"
