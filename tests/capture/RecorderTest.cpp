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
#include <QTemporaryDir>
#include <QTest>

#include <future>

using namespace orvane;

namespace {

// One recording of the test pattern: codec, size, rate, sound, and what ffprobe must call its
// video; `holdsSyncs`: the disk holds every sync until the last frame is in.
struct Take {
    MovieCodec codec;
    int width, height;
    double fps;
    bool sound;
    QString codecName, profile;
    bool holdsSyncs = false;
};

// Steps a test pattern camera (and a tone, when sound is recorded) through the capture
// pipeline into `recorder` for `frames` pictures, as the capture thread would, but without
// letting the recorder fall behind; from frame `resizeAt` on the camera delivers twice the
// size. Returns the first frame's moment of capture, or none when the recorder did not make
// room for a frame within a few seconds.
std::optional<MovieStart> record(Recorder& recorder, int width, int height, double fps, int frames,
                                 bool sound, const OverlayContent* overlay = nullptr,
                                 int resizeAt = -1)
{
    ManualClock clock;
    CapturePipeline pipeline(clock);
    if (overlay)
        pipeline.setOverlay(std::make_shared<const OverlayContent>(*overlay));
    TestPatternSource camera(clock, width, height, fps, TestPatternSource::Pacing::stepped);
    TestPatternSource larger(clock, width * 2, height * 2, fps, TestPatternSource::Pacing::stepped);
    ToneSource tone(clock);
    AudioBuffer buffer;
    std::optional<MovieStart> start;
    pipeline.setRecorder(std::shared_ptr<Recorder>(&recorder, [](Recorder*) {}));
    for (int i = 0; i < frames; ++i) {
        TestPatternSource& source = resizeAt >= 0 && i >= resizeAt ? larger : camera;
        if (source.waitForFrame(Seconds(0)) != VideoSource::Wait::frameReady ||
            !recorder.waitForRoomForTesting(Seconds(5)))
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

} // namespace

Q_DECLARE_METATYPE(Take)

class RecorderTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void stopsQuicklyThenFinishesAnOrdinaryMovie_data()
    {
        QTest::addColumn<Take>("take");
        const auto h264 = MovieCodec::h264;
        const auto proRes = MovieCodec::proRes422Proxy;
        QTest::newRow("H.264 with sound") << Take{h264, 320, 180, 30, true, "h264", {}};
        QTest::newRow("H.264, 25 fps") << Take{h264, 256, 144, 25, false, "h264", {}};
        QTest::newRow("HEVC with sound") << Take{MovieCodec::hevc, 320, 180, 30, true, "hevc", {}};
        // Intra-only: every picture is a key frame, yet fragments still last a second. And a
        // USB stick or a spinning disk can take a second to sync: the encoder goes on.
        QTest::newRow("ProRes 422 Proxy with sound, 29.97 fps, on a disk that holds its syncs")
            << Take{proRes, 320, 240, 30000.0 / 1001, true, "prores", "Proxy", true};
    }
    void stopsQuicklyThenFinishesAnOrdinaryMovie()
    {
        QFETCH(Take, take);
        QTemporaryDir folder;
        const QString path = folder.filePath("Camera 1.mov");
        const int frames = int(std::lround(3.3 * take.fps));
        std::promise<void> release;
        const std::shared_future<void> released = release.get_future().share();
        if (!take.holdsSyncs)
            release.set_value();
        std::atomic<int> syncs{0};
        Recorder recorder(path, take.codec, take.sound, [&](int fd) {
            ++syncs;
            released.wait();
            MovieWriter::syncData(fd);
        });
        std::vector<MovieStart> announced;
        recorder.setStartHandler([&](const MovieStart& start) { announced.push_back(start); });
        const auto start = record(recorder, take.width, take.height, take.fps, frames, take.sound);
        const int held = syncs; // under way while the frames kept coming
        if (take.holdsSyncs)
            release.set_value();
        QVERIFY(!take.holdsSyncs || held >= 1);
        QVERIFY2(start, "the recorder stopped taking frames");

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
            {{0.0, "Q 1 Preshow"}, {2.5, "Q 2 «Act One»"}},
            [&](const FinishedMovie& movie) { finished.set_value(movie); });
        QCOMPARE(stopped.get_future().get(), (Recorder::Outcome{path, std::nullopt, start}));
        QCOMPARE(announced, std::vector<MovieStart>{*start});
        QCOMPARE(recorder.droppedFrames(), 0);
        QCOMPARE(recorder.writtenFrames(), frames);
        QVERIFY(movieAtStop);
        QCOMPARE(movieAtStop->stream("video")->frameCount, frames);
        // A fragment about every second, not one per picture.
        const auto fragments = boxesAtStop.count("moof");
        QVERIFY2(fragments >= 3 && fragments <= 5, qPrintable(boxesAtStop.join(' ')));
        // Frames come faster than real time here, so syncs asked for while one runs are folded
        // into the next: at least one for a fragment and the last, never one per picture.
        QVERIFY2(syncs >= 2 && syncs <= fragments + 1, qPrintable(QString::number(syncs.load())));

        // After it, an ordinary movie with one index, no fragments, its chapters, same name.
        QCOMPARE(finished.get_future().get().result, FinishedMovie::Result::finished);
        const QStringList boxes = topLevelBoxes(path);
        QVERIFY2(boxes.contains("moov") && !boxes.contains("moof"), qPrintable(boxes.join(' ')));
        QCOMPARE(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden),
                 QStringList{"Camera 1.mov"});
        const auto movie = probeMovie(path);
        QVERIFY(movie && movie->formatName.contains("mov"));
        QCOMPARE(int(movie->chapters.size()), 2);
        QCOMPARE(movie->chapters[1].title, "Q 2 «Act One»");
        const ProbedStream* video = movie->stream("video");
        QVERIFY(video);
        QCOMPARE(video->codec, take.codecName);
        QVERIFY(take.profile.isEmpty() || video->profile == take.profile);
        QCOMPARE(QSize(video->width, video->height), QSize(take.width, take.height));
        QVERIFY2(std::abs(video->frameRate - take.fps) < 0.01,
                 qPrintable(QString::number(video->frameRate)));
        QCOMPARE(video->frameCount, frames);
        QVERIFY2(std::abs(video->duration - frames / take.fps) <= 1.5 / take.fps,
                 qPrintable(QString::number(video->duration)));
        QCOMPARE(movie->count("audio"), take.sound ? 1 : 0);
        if (const ProbedStream* audio = movie->stream("audio")) {
            QCOMPARE(audio->codec, "aac");
            QCOMPARE(std::pair(audio->sampleRate, audio->channels), std::pair(48000, 2));
            QVERIFY2(std::abs(audio->duration - video->duration) < 0.1,
                     qPrintable(QString::number(audio->duration)));
        }
    }

    // The camera is switched to a mode of twice the size at frame 20: its pictures are scaled
    // to the movie's size, and the panels are over the camera's picture in both.
    void theOverlayIsBurnedInAndOtherSizesAreScaled()
    {
        constexpr int kWidth = 640, kHeight = 360;
        QTemporaryDir folder;
        const QString path = folder.filePath("Camera 1.mov");
        ManualClock clock;
        const OverlayContent content = busyShowOverlayContent(clock.wallNow());
        Recorder recorder(path, MovieCodec::h264, false);
        QVERIFY(record(recorder, kWidth, kHeight, 30, 40, false, &content, 20));
        QCOMPARE(recorder.finishAndWait().error, std::nullopt);
        const auto movie = probeMovie(path);
        QVERIFY(movie);
        const ProbedStream* video = movie->stream("video");
        QCOMPARE(QSize(video->width, video->height), QSize(kWidth, kHeight));
        QCOMPARE(video->frameCount, 40);
        for (const int scale : {1, 2}) {
            const int index = scale == 1 ? 10 : 30;
            const QByteArray decoded =
                runTool("ffmpeg",
                        {"-v", "error", "-i", path, "-vf", QString("select=eq(n\\,%1)").arg(index),
                         "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "bgra", "-"})
                    .value_or(QByteArray());
            QCOMPARE(decoded.size(), qsizetype(kWidth) * kHeight * 4);
            // The camera's own picture, as it gave it.
            FramePool pool(kWidth * scale, kHeight * scale, 1);
            const auto frame = pool.acquire();
            TestPatternSource(clock, kWidth * scale, kHeight * scale, 30).paint(*frame, index);
            const QImage bare = yuv::toRgb(frame->planes());
            // The mean difference per colour between the movie's picture and the bare one,
            // over the pixels `counted` takes.
            const auto difference = [&](const std::function<bool(QPointF)>& counted) {
                double total = 0;
                qint64 pixels = 0;
                for (int y = 0; y < kHeight; ++y)
                    for (int x = 0; x < kWidth; ++x) {
                        if (!counted(QPointF(x * scale, y * scale)))
                            continue;
                        ++pixels;
                        const QRgb expected = bare.pixel(x * scale, y * scale);
                        const auto* got = decoded.constData() + qsizetype(y * kWidth + x) * 4;
                        total += std::abs(int(std::uint8_t(got[0])) - qBlue(expected)) +
                                 std::abs(int(std::uint8_t(got[1])) - qGreen(expected)) +
                                 std::abs(int(std::uint8_t(got[2])) - qRed(expected));
                    }
                return pixels > 0 ? total / (3.0 * double(pixels)) : 1e9;
            };
            const auto arranged = OverlayRenderer().arrange(
                content, QSizeF(kWidth * scale, kHeight * scale), clock.wallNow());
            QVERIFY(arranged.size() >= 3);
            for (const auto& item : arranged) {
                const double mean = difference([&](QPointF p) { return item.frame.contains(p); });
                QVERIFY2(mean > 12, qPrintable(QString::number(mean)));
            }
            const double away = difference([&](QPointF p) {
                return std::none_of(arranged.begin(), arranged.end(), [&](const auto& a) {
                    return a.frame.adjusted(-24, -24, 24, 24).contains(p);
                });
            });
            QVERIFY2(away < 6, qPrintable(QString("%1 at scale %2").arg(away).arg(scale)));
        }
    }

    void aRecordingWithoutFramesLeavesNoFile()
    {
        QTemporaryDir folder;
        const QString path = folder.filePath("Camera 1.mov");
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

    void aMovieThatCannotBeCreatedFailsWithTheWritersMessage()
    {
        QTemporaryDir folder;
        Recorder recorder(folder.filePath("missing folder/Camera 1.mov"), MovieCodec::h264, false);
        std::optional<CaptureError> reported;
        recorder.setFailureHandler([&](const CaptureError& error) { reported = error; });
        record(recorder, 160, 90, 30, 3, false);
        const auto outcome = recorder.finishAndWait();
        QVERIFY(!outcome.movie && !outcome.start && outcome.error);
        QCOMPARE(outcome.error->kind, CaptureError::Kind::writerFailed);
        QCOMPARE(outcome.error->description(),
                 "The recording couldn't be saved. No such file or directory");
        QCOMPARE(reported, outcome.error);
    }

    // 60 pictures arrive at once and a ProRes picture takes tens of milliseconds: had the
    // hand-over waited for the encoder, none would be lost. The encoder's losses are told
    // apart, and said once, for the sentence that suggests a lighter codec.
    void aFullQueueDropsFramesWithoutWaiting()
    {
        QTemporaryDir folder;
        const QString path = folder.filePath("Camera 1.mov");
        Recorder recorder(path, MovieCodec::proRes422Proxy, false);
        ManualClock clock;
        CapturePipeline pipeline(clock);
        TestPatternSource camera(clock, 1920, 1080, 30, TestPatternSource::Pacing::stepped);
        int fellBehind = 0;
        recorder.setFallingBehindHandler([&] { ++fellBehind; });
        pipeline.setRecorder(std::shared_ptr<Recorder>(&recorder, [](Recorder*) {}));
        for (int i = 0; i < 60; ++i) {
            camera.waitForFrame(Seconds(0));
            pipeline.captureFrame(camera);
            clock.advance(1.0 / 30);
        }
        QVERIFY(recorder.droppedFrames() > 0);
        QCOMPARE(pipeline.stats().droppedFrames, recorder.droppedFrames());
        QCOMPARE(pipeline.stats().encoderDroppedFrames, recorder.droppedFrames());
        QCOMPARE(fellBehind, 1);
        pipeline.setRecorder(nullptr);
        QVERIFY(recorder.finishAndWait().movie);
        QCOMPARE(recorder.writtenFrames() + recorder.droppedFrames(), 60);
        const auto movie = probeMovie(path);
        QVERIFY(movie);
        QCOMPARE(movie->stream("video")->frameCount, recorder.writtenFrames());
    }
};

QTEST_MAIN(RecorderTest)
#include "RecorderTest.moc"
