#include "capture/Recorder.h"

#include "MovieProbe.h"
#include "base/ManualClock.h"
#include "capture/AudioSource.h"
#include "capture/CapturePipeline.h"
#include "capture/Frame.h"
#include "capture/FramePool.h"
#include "capture/TestPatternSource.h"
#include "capture/ToneSource.h"
#include "overlay/OverlayRenderer.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <future>

using namespace orvane;

Q_DECLARE_METATYPE(orvane::MovieCodec)

namespace {

// Steps a test pattern camera (and a tone, when sound is recorded) through the capture
// pipeline into `recorder` for `frames` pictures, as the capture thread would, but without
// letting the recorder fall behind; `resizeAt`: from that frame on the camera delivers twice
// the size. Returns the first frame's moment of capture, or none when the recorder did not
// make room for a frame within a few seconds.
std::optional<MovieStart> record(Recorder& recorder, int width, int height, double fps, int frames,
                                 bool sound,
                                 std::shared_ptr<const OverlayContent> overlay = nullptr,
                                 int resizeAt = -1)
{
    ManualClock clock;
    CapturePipeline pipeline(clock);
    pipeline.setOverlay(std::move(overlay));
    TestPatternSource camera(clock, width, height, fps, TestPatternSource::Pacing::stepped);
    TestPatternSource larger(clock, width * 2, height * 2, fps, TestPatternSource::Pacing::stepped);
    ToneSource tone(clock);
    AudioBuffer buffer;
    std::optional<MovieStart> start;
    pipeline.setRecorder(std::shared_ptr<Recorder>(&recorder, [](Recorder*) {}));
    for (int i = 0; i < frames; ++i) {
        TestPatternSource& source = resizeAt >= 0 && i >= resizeAt ? larger : camera;
        if (source.waitForFrame(Seconds(0)) != VideoSource::Wait::frameReady)
            return std::nullopt;
        if (!recorder.waitForRoomForTesting(Seconds(5)))
            return std::nullopt;
        const auto frame = pipeline.captureFrame(source);
        if (frame && !start)
            start = MovieStart{frame->capturedAt, frame->wallCapturedAt, frame->frameDuration};
        while (sound && tone.read(buffer) == AudioSource::Read::buffer)
            pipeline.captureAudio(buffer);
        clock.advance(1.0 / fps);
    }
    pipeline.setRecorder(nullptr);
    return start;
}

// Picture `index` of the test pattern at the given size, as the camera gave it, in BGRA.
std::vector<std::uint8_t> pattern(int width, int height, int index)
{
    FramePool pool(width, height, 1);
    const auto frame = pool.acquire();
    ManualClock clock;
    TestPatternSource(clock, width, height, 30).paint(*frame, index);
    const QImage rgb = yuv::toRgb(frame->planes());
    return {rgb.constBits(), rgb.constBits() + rgb.sizeInBytes()};
}

// The mean difference per colour between a decoded `width` wide picture and `expected`, which
// is `scale` times as large, over the pixels `counted` takes.
double difference(const QByteArray& decoded, int width, int height,
                  const std::vector<std::uint8_t>& expected, int scale,
                  const std::function<bool(int, int)>& counted)
{
    double total = 0;
    qint64 pixels = 0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            if (!counted(x, y))
                continue;
            ++pixels;
            const auto at = qsizetype(y * width + x) * 4;
            const auto from = std::size_t((scale * y * width * scale + scale * x) * 4);
            for (int c = 0; c < 3; ++c)
                total += std::abs(int(std::uint8_t(decoded[at + c])) - int(expected[from + c]));
        }
    return pixels > 0 ? total / (3.0 * double(pixels)) : 1e9;
}

} // namespace

class RecorderTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void stopsQuicklyThenFinishesAnOrdinaryMovie_data();
    void stopsQuicklyThenFinishesAnOrdinaryMovie();
    void theOverlayIsBurnedInAndOtherSizesAreScaled();
    void aRecordingWithoutFramesLeavesNoFile();
    void aMovieThatCannotBeCreatedFailsWithTheWritersMessage();
    void aFullQueueDropsFramesWithoutWaiting();
    void aDiskThatHoldsSyncsLosesNoFrame();
};

void RecorderTest::stopsQuicklyThenFinishesAnOrdinaryMovie_data()
{
    QTest::addColumn<MovieCodec>("codec");
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<double>("fps");
    QTest::addColumn<bool>("sound");
    QTest::addColumn<QString>("codecName");
    QTest::addColumn<QString>("profile");
    QTest::newRow("H.264 with sound") << MovieCodec::h264 << 320 << 180 << 30.0 << true << "h264"
                                      << "";
    QTest::newRow("H.264 without sound, 25 fps")
        << MovieCodec::h264 << 256 << 144 << 25.0 << false << "h264"
        << "";
    QTest::newRow("HEVC with sound") << MovieCodec::hevc << 320 << 180 << 30.0 << true << "hevc"
                                     << "";
    // Intra-only: every picture is a key frame, yet fragments still last a second.
    QTest::newRow("ProRes 422 Proxy, 1080p")
        << MovieCodec::proRes422Proxy << 1920 << 1080 << 30.0 << false << "prores"
        << "Proxy";
    QTest::newRow("ProRes 422 Proxy with sound, 29.97 fps")
        << MovieCodec::proRes422Proxy << 320 << 240 << 30000.0 / 1001 << true << "prores"
        << "Proxy";
}

void RecorderTest::stopsQuicklyThenFinishesAnOrdinaryMovie()
{
    QFETCH(MovieCodec, codec);
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(double, fps);
    QFETCH(bool, sound);
    QFETCH(QString, codecName);
    QFETCH(QString, profile);
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Camera 1.mov"));
    const int frames = int(std::lround(3.3 * fps));
    std::atomic<int> syncs{0};
    Recorder recorder(path, codec, sound, [&syncs](int fd) {
        ++syncs;
        MovieWriter::syncData(fd);
    });
    std::vector<MovieStart> announced;
    recorder.setStartHandler([&](const MovieStart& start) { announced.push_back(start); });
    const auto start = record(recorder, width, height, fps, frames, sound);
    QVERIFY(start);

    // At the stop the movie is closed as it was written, fragmented, and plays whole.
    std::promise<Recorder::Outcome> stopped;
    QStringList boxesAtStop;
    std::optional<ProbedMovie> movieAtStop;
    std::promise<FinishedMovie> finished;
    recorder.finish(
        [&](Recorder::Outcome outcome) {
            boxesAtStop = topLevelBoxes(path);
            movieAtStop = probeMovie(path);
            stopped.set_value(std::move(outcome));
        },
        {{0.0, QStringLiteral("Q 1 Preshow")}, {2.5, QStringLiteral("Q 2 «Act One»")}},
        [&](const FinishedMovie& movie) { finished.set_value(movie); });
    QCOMPARE(stopped.get_future().get(), (Recorder::Outcome{path, std::nullopt, start}));
    QCOMPARE(announced, std::vector<MovieStart>{*start});
    QCOMPARE(recorder.droppedFrames(), 0);
    QVERIFY(movieAtStop);
    QCOMPARE(movieAtStop->stream(QStringLiteral("video"))->frameCount, frames);
    // A fragment about every second, not one per picture.
    const auto fragments = boxesAtStop.count(QStringLiteral("moof"));
    QVERIFY2(fragments >= 3 && fragments <= 5, qPrintable(boxesAtStop.join(QLatin1Char(' '))));
    // Frames come faster than real time here, so syncs asked for while one runs are folded
    // into the next: at least one for a fragment and the last, never one per picture.
    QVERIFY2(syncs >= 2 && syncs <= fragments + 1,
             qPrintable(QStringLiteral("%1 syncs").arg(syncs.load())));

    // After it, an ordinary movie with one index, no fragments, its chapters, same name.
    const FinishedMovie result = finished.get_future().get();
    QCOMPARE(result.result, FinishedMovie::Result::finished);
    const QStringList boxes = topLevelBoxes(path);
    QVERIFY2(boxes.contains(QStringLiteral("moov")) && !boxes.contains(QStringLiteral("moof")),
             qPrintable(boxes.join(QLatin1Char(' '))));
    QCOMPARE(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden),
             QStringList{QStringLiteral("Camera 1.mov")});
    const auto movie = probeMovie(path);
    QVERIFY(movie);
    QVERIFY2(movie->formatName.contains(QLatin1String("mov")), qPrintable(movie->formatName));
    QCOMPARE(int(movie->chapters.size()), 2);
    QCOMPARE(movie->chapters[1].title, QStringLiteral("Q 2 «Act One»"));
    const ProbedStream* video = movie->stream(QStringLiteral("video"));
    QVERIFY(video);
    QCOMPARE(video->codec, codecName);
    if (!profile.isEmpty())
        QCOMPARE(video->profile, profile);
    QCOMPARE(video->width, width);
    QCOMPARE(video->height, height);
    QVERIFY2(std::abs(video->frameRate - fps) < 0.01,
             qPrintable(QString::number(video->frameRate)));
    QCOMPARE(video->frameCount, frames);
    QVERIFY2(std::abs(video->duration - frames / fps) <= 1.5 / fps,
             qPrintable(QString::number(video->duration)));
    QCOMPARE(movie->count(QStringLiteral("audio")), sound ? 1 : 0);
    if (sound) {
        const ProbedStream* audio = movie->stream(QStringLiteral("audio"));
        QCOMPARE(audio->codec, QStringLiteral("aac"));
        QCOMPARE(audio->sampleRate, 48000);
        QCOMPARE(audio->channels, 2);
        QVERIFY2(std::abs(audio->duration - video->duration) < 0.1,
                 qPrintable(QString::number(audio->duration)));
    }
}

void RecorderTest::theOverlayIsBurnedInAndOtherSizesAreScaled()
{
    // The camera is switched to a mode of twice the size at frame 20.
    constexpr int kWidth = 640;
    constexpr int kHeight = 360;
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Camera 1.mov"));
    ManualClock clock;
    const auto content =
        std::make_shared<const OverlayContent>(busyShowOverlayContent(clock.wallNow()));
    Recorder recorder(path, MovieCodec::h264, false);
    std::optional<CaptureError> failure;
    recorder.setFailureHandler([&](const CaptureError& error) { failure = error; });
    QVERIFY(record(recorder, kWidth, kHeight, 30, 40, false, content, 20));
    QCOMPARE(recorder.finishAndWait().error, std::nullopt);
    QVERIFY(!failure);
    const auto movie = probeMovie(path);
    QVERIFY(movie);
    const ProbedStream* video = movie->stream(QStringLiteral("video"));
    QCOMPARE(QSize(video->width, video->height), QSize(kWidth, kHeight));
    QCOMPARE(video->frameCount, 40);

    for (const int scale : {1, 2}) {
        // A frame from each camera: the panels over the camera's picture, give or take the
        // codec (and the scaling).
        const int index = scale == 1 ? 10 : 30;
        const QByteArray decoded = decodePicture(path, index, kWidth, kHeight);
        QVERIFY(!decoded.isEmpty());
        const auto bare = pattern(kWidth * scale, kHeight * scale, index);
        const auto arranged = OverlayRenderer().arrange(
            *content, QSizeF(kWidth * scale, kHeight * scale), clock.wallNow());
        QVERIFY(arranged.size() >= 3);
        for (const auto& item : arranged) {
            const QRect panel = item.frame.toAlignedRect();
            const double mean =
                difference(decoded, kWidth, kHeight, bare, scale,
                           [&](int x, int y) { return panel.contains(x * scale, y * scale); });
            QVERIFY2(
                mean > 12,
                qPrintable(
                    QStringLiteral("panel at %1,%2: %3").arg(panel.x()).arg(panel.y()).arg(mean)));
        }
        const double away = difference(decoded, kWidth, kHeight, bare, scale, [&](int x, int y) {
            return std::none_of(arranged.begin(), arranged.end(), [&](const auto& a) {
                return a.frame.adjusted(-24, -24, 24, 24).contains(QPointF(x * scale, y * scale));
            });
        });
        QVERIFY2(away < 6, qPrintable(QStringLiteral("%1 at scale %2").arg(away).arg(scale)));
    }
}

void RecorderTest::aRecordingWithoutFramesLeavesNoFile()
{
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Camera 1.mov"));
    Recorder recorder(path, MovieCodec::h264, true);
    ManualClock clock;
    ToneSource tone(clock);
    AudioBuffer buffer;
    clock.advance(0.5);
    QCOMPARE(tone.read(buffer), AudioSource::Read::buffer);
    recorder.appendAudio(buffer); // sound alone makes no movie
    QCOMPARE(recorder.finishAndWait(), Recorder::Outcome{});
    QVERIFY(!QFile::exists(path));
}

void RecorderTest::aMovieThatCannotBeCreatedFailsWithTheWritersMessage()
{
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("missing folder/Camera 1.mov"));
    Recorder recorder(path, MovieCodec::h264, false);
    std::optional<CaptureError> reported;
    recorder.setFailureHandler([&](const CaptureError& error) { reported = error; });
    record(recorder, 160, 90, 30, 3, false);
    const auto outcome = recorder.finishAndWait();
    QVERIFY(!outcome.movie);
    QVERIFY(!outcome.start);
    QVERIFY(outcome.error);
    QCOMPARE(outcome.error->kind, CaptureError::Kind::writerFailed);
    QCOMPARE(outcome.error->description(),
             QStringLiteral("The recording couldn't be saved. No such file or directory"));
    QCOMPARE(reported, outcome.error);
}

void RecorderTest::aFullQueueDropsFramesWithoutWaiting()
{
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Camera 1.mov"));
    Recorder recorder(path, MovieCodec::proRes422Proxy, false);
    ManualClock clock;
    CapturePipeline pipeline(clock);
    TestPatternSource camera(clock, 1920, 1080, 30, TestPatternSource::Pacing::stepped);
    int fellBehind = 0;
    recorder.setFallingBehindHandler([&] { ++fellBehind; });
    pipeline.setRecorder(std::shared_ptr<Recorder>(&recorder, [](Recorder*) {}));
    constexpr int kFrames = 60;
    for (int i = 0; i < kFrames; ++i) {
        camera.waitForFrame(Seconds(0));
        pipeline.captureFrame(camera);
        clock.advance(1.0 / 30);
    }
    // 60 pictures arrive at once and a ProRes picture takes tens of milliseconds: had the
    // hand-over waited for the encoder, none would be lost. The encoder's losses are told
    // apart, and said once, for the sentence that suggests a lighter codec.
    QVERIFY(recorder.droppedFrames() > 0);
    QCOMPARE(pipeline.stats().droppedFrames, recorder.droppedFrames());
    QCOMPARE(pipeline.stats().encoderDroppedFrames, recorder.droppedFrames());
    QCOMPARE(fellBehind, 1);
    pipeline.setRecorder(nullptr);
    QVERIFY(recorder.finishAndWait().movie);
    QCOMPARE(recorder.writtenFrames() + recorder.droppedFrames(), kFrames);
    const auto movie = probeMovie(path);
    QVERIFY(movie);
    QCOMPARE(movie->stream(QStringLiteral("video"))->frameCount, recorder.writtenFrames());
}

void RecorderTest::aDiskThatHoldsSyncsLosesNoFrame()
{
    // A USB stick or a spinning disk can take a second to sync: the encoder must go on
    // meanwhile. Here the disk holds every sync until the recording ends.
    constexpr int kFrames = 3 * 30;
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Camera 1.mov"));
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    std::atomic<int> syncs{0};
    Recorder recorder(path, MovieCodec::proRes422Proxy, true, [&](int fd) {
        ++syncs;
        released.wait();
        MovieWriter::syncData(fd);
    });
    const bool recorded = record(recorder, 320, 180, 30, kFrames, true).has_value();
    const int held = syncs; // syncs under way while frames kept coming
    release.set_value();
    QVERIFY(held >= 1);
    QVERIFY2(recorded, "the recorder stopped taking frames while the disk was syncing");
    QVERIFY(recorder.finishAndWait().movie);
    QCOMPARE(recorder.droppedFrames(), 0);
    QCOMPARE(recorder.writtenFrames(), kFrames);
    const auto movie = probeMovie(path);
    QVERIFY(movie);
    QCOMPARE(movie->stream(QStringLiteral("video"))->frameCount, kFrames);
}

QTEST_MAIN(RecorderTest)
#include "RecorderTest.moc"
