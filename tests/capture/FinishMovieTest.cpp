#include "capture/FinishMovie.h"

#include "MovieProbe.h"
#include "base/ManualClock.h"
#include "capture/Frame.h"
#include "capture/FramePool.h"
#include "capture/MovieWriter.h"
#include "capture/TestPatternSource.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sys/resource.h>

using namespace orvane;

namespace {

// How the movie on the disk came to be.
enum class Left {
    stopped,        // the recording was stopped: closed, still fragmented
    killed,         // the program died: no trailer, the fragment being made is missing
    torn,           // the program died while a fragment was written: it ends mid-way
    finishedBefore, // already ordinary, with chapters of its own
};

// Writes `frames` pictures of the test pattern at 30 per second into a movie at `path`.
void writeMovie(const QString& path, int frames, Left left)
{
    MovieWriter::Video video;
    video.codec = MovieCodec::h264;
    video.width = 320;
    video.height = 180;
    QString error;
    auto writer = MovieWriter::create(path, video, true, error);
    QVERIFY2(writer, qPrintable(error));
    FramePool pool(320, 180, 1);
    ManualClock clock;
    TestPatternSource pattern(clock, 320, 180, 30);
    std::vector<float> sound(1600 * 2, 0.1f); // 1/30 s of stereo
    for (int i = 0; i < frames; ++i) {
        std::shared_ptr<Frame> frame = pool.acquire();
        QVERIFY(frame);
        pattern.paint(*frame, i);
        QVERIFY(writer->writeVideo(std::move(frame), i));
        QVERIFY(writer->writeAudio(sound.data(), 1600));
    }
    if (left == Left::stopped || left == Left::finishedBefore)
        QVERIFY(writer->finish());
    writer.reset();
    if (left == Left::torn) {
        QFile file(path);
        QVERIFY(file.resize(file.size() - 20000));
    }
    if (left == Left::finishedBefore)
        QCOMPARE(finishMovie(path, {{1.0, QStringLiteral("old")}}).result,
                 FinishedMovie::Result::finished);
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

Q_DECLARE_METATYPE(Left)

class FinishMovieTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void makesAnOrdinaryMovieWithChapters_data();
    void makesAnOrdinaryMovieWithChapters();
    void aDiskThatFillsUpLeavesTheMovieAsItWas();
};

void FinishMovieTest::makesAnOrdinaryMovieWithChapters_data()
{
    QTest::addColumn<Left>("left");
    QTest::addColumn<int>("minimumFrames");
    QTest::addColumn<int>("maximumFrames");
    QTest::newRow("stopped") << Left::stopped << 100 << 100;
    QTest::newRow("killed: the last fragment is lost") << Left::killed << 60 << 99;
    QTest::newRow("killed while writing: torn last fragment") << Left::torn << 30 << 99;
    QTest::newRow("finished before: chapters replaced") << Left::finishedBefore << 100 << 100;
}

void FinishMovieTest::makesAnOrdinaryMovieWithChapters()
{
    QFETCH(Left, left);
    QFETCH(int, minimumFrames);
    QFETCH(int, maximumFrames);
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Show 2026-11-23.mov"));
    writeMovie(path, 100, left);
    if (QTest::currentTestFailed())
        return;

    const FinishedMovie result = finishMovie(path, {{0.5, QStringLiteral("Q 12 Blackout")},
                                                    {0.0, QStringLiteral("Q 11 «Doors»")},
                                                    {500.0, QStringLiteral("past the end")}});
    QVERIFY2(result.result == FinishedMovie::Result::finished, qPrintable(result.message));
    QCOMPARE(result.chapters, 2);

    const QStringList boxes = topLevelBoxes(path);
    QVERIFY2(boxes.contains(QStringLiteral("moov")) && !boxes.contains(QStringLiteral("moof")),
             qPrintable(boxes.join(QLatin1Char(' '))));
    const auto movie = probeMovie(path);
    QVERIFY(movie);
    const ProbedStream* video = movie->stream(QStringLiteral("video"));
    QVERIFY(video);
    QVERIFY2(video->frameCount >= minimumFrames && video->frameCount <= maximumFrames,
             qPrintable(QString::number(video->frameCount)));
    QCOMPARE(movie->count(QStringLiteral("audio")), 1);
    const auto* chapters = &movie->chapters;
    QCOMPARE(int(chapters->size()), 2);
    QCOMPARE((*chapters)[0].title, QStringLiteral("Q 11 «Doors»"));
    QCOMPARE((*chapters)[0].start, 0.0);
    QCOMPARE((*chapters)[0].end, 0.5);
    QCOMPARE((*chapters)[1].title, QStringLiteral("Q 12 Blackout"));
    QVERIFY2(std::abs((*chapters)[1].end - movie->duration) < 0.05,
             qPrintable(QStringLiteral("%1 s, %2 s").arg((*chapters)[1].end).arg(movie->duration)));
    QCOMPARE(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden),
             QStringList{QStringLiteral("Show 2026-11-23.mov")});
}

void FinishMovieTest::aDiskThatFillsUpLeavesTheMovieAsItWas()
{
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Camera 1.mov"));
    writeMovie(path, 100, Left::killed);
    if (QTest::currentTestFailed())
        return;
    const QByteArray before = contents(path);
    QVERIFY(before.size() > 60000);

    // The disk fills up half-way through the copy: writes beyond this size fail.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    QCOMPARE(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    rlimit limit = saved;
    limit.rlim_cur = rlim_t(before.size() / 2);
    QCOMPARE(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    const FinishedMovie result = finishMovie(path, {{0.0, QStringLiteral("Q 1")}});
    QCOMPARE(::setrlimit(RLIMIT_FSIZE, &saved), 0);

    QCOMPARE(result.result, FinishedMovie::Result::noRoom);
    QCOMPARE(result.message,
             QStringLiteral("There isn't enough room on the disk to finish the movie."));
    QCOMPARE(contents(path), before);
    QCOMPARE(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden),
             QStringList{QStringLiteral("Camera 1.mov")});
    // With room again it finishes.
    QCOMPARE(finishMovie(path, {}).result, FinishedMovie::Result::finished);
}

QTEST_GUILESS_MAIN(FinishMovieTest)
#include "FinishMovieTest.moc"
