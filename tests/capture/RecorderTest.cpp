// Recordings checked with the real tools: the recorder fed frame by frame, a live camera
// recording, and the movies a stop or a crash leaves made ordinary with their chapters.

#include "capture/Recorder.h"

#include "base/ManualClock.h"
#include "capture/AudioSource.h"
#include "capture/CameraFeed.h"
#include "capture/CapturePipeline.h"
#include "capture/FinishMovie.h"
#include "capture/Frame.h"
#include "capture/FramePool.h"
#include "capture/MovieWriter.h"
#include "capture/TestPatternSource.h"
#include "capture/ToneSource.h"
#include "overlay/OverlayRenderer.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <csignal>
#include <future>
#include <sys/resource.h>

using namespace orvane;

namespace {

// The standard output of a tool that succeeded.
std::optional<QByteArray> runTool(const QString& program, const QStringList& arguments)
{
    QProcess tool;
    tool.start(program, arguments);
    if (!tool.waitForFinished(60000) || tool.exitCode() != 0)
        return std::nullopt;
    return tool.readAllStandardOutput();
}

// What ffprobe says of the movie at `path`, as "format.duration", "video.codec_name",
// "audio.sample_rate", "chapter1.end_time" and so on, with the chapters' titles in order as
// "chapters"; empty when it cannot read the movie.
QVariantHash probeMovie(const QString& path)
{
    const auto output = runTool("ffprobe", {"-v", "error", "-count_frames", "-show_streams",
                                            "-show_format", "-show_chapters", "-of", "json", path});
    const QJsonObject json = QJsonDocument::fromJson(output.value_or(QByteArray())).object();
    QVariantHash facts;
    const auto add = [&](const QString& prefix, const QJsonObject& object) {
        for (auto it = object.begin(); it != object.end(); ++it)
            facts[prefix + it.key()] = it->toVariant();
    };
    add("format.", json["format"].toObject());
    for (const QJsonValue stream : json["streams"].toArray())
        add(stream["codec_type"].toString() + '.', stream.toObject());
    QStringList titles;
    const QJsonArray chapters = json["chapters"].toArray();
    for (qsizetype i = 0; i < chapters.size(); ++i) {
        add(QString("chapter%1.").arg(i), chapters[i].toObject());
        titles << chapters[i]["tags"]["title"].toString();
    }
    if (!json.isEmpty())
        facts["chapters"] = titles;
    return facts;
}

// The types of the top-level boxes of a QuickTime file, in order ("ftyp", "moov", "moof"...).
QStringList topLevelBoxes(const QString& path)
{
    QStringList boxes;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return boxes;
    for (qint64 at = 0; at + 8 <= file.size();) {
        file.seek(at);
        const QByteArray header = file.read(16);
        quint64 length = qFromBigEndian<quint32>(header.constData());
        boxes << QString::fromLatin1(header.mid(4, 4));
        if (length == 1 && header.size() == 16)
            length = qFromBigEndian<quint64>(header.constData() + 8);
        if (length < 8) // 0: to the end of the file
            break;
        at += qint64(length);
    }
    return boxes;
}

// An ordinary movie: one index, no fragments, and nothing else left in its folder.
void checkOrdinary(const QString& path)
{
    const QStringList boxes = topLevelBoxes(path);
    QVERIFY2(boxes.contains("moov") && !boxes.contains("moof"), qPrintable(boxes.join(' ')));
    QCOMPARE(QFileInfo(path).dir().entryList(QDir::Files | QDir::Hidden),
             QStringList{QFileInfo(path).fileName()});
}

// One recording of the test pattern: codec, rate, sound, and what ffprobe must call its video;
// `holdsSyncs`: the disk holds every sync until the last frame is in.
struct Take {
    MovieCodec codec;
    double fps;
    bool sound;
    QString codecName;
    bool holdsSyncs = false;
};

// Steps a test pattern camera (and a tone, with sound) through the capture pipeline into
// `recorder` for `frames` pictures, as the capture thread would, without letting the recorder
// fall behind; from frame `resizeAt` on at twice the size. Returns the first frame's moment of
// capture; none when the recorder made no room for a frame within a few seconds.
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

// Writes 100 pictures of the test pattern at 30 per second, with sound, into a movie at `path`:
// an ordinary one with chapters of its own, or as a crash leaves it while a fragment is
// written, with no trailer and the last fragment torn.
void writeMovie(const QString& path, bool finishedBefore)
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
    QVERIFY(!finishedBefore || writer->finish());
    writer.reset();
    if (finishedBefore)
        QCOMPARE(finishMovie(path, {{1.0, "old"}}).result, FinishedMovie::Result::finished);
    else
        QVERIFY(QFile::resize(path, QFileInfo(path).size() - 20000));
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

Q_DECLARE_METATYPE(Take)
Q_DECLARE_METATYPE(orvane::MovieStart)

class RecorderTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void stopsQuicklyThenFinishesAnOrdinaryMovie_data()
    {
        QTest::addColumn<Take>("take");
        QTest::newRow("HEVC, 25 fps") << Take{MovieCodec::hevc, 25, false, "hevc"};
        // Intra-only: every picture is a key frame, yet fragments still last a second. And a
        // USB stick or a spinning disk can take a second to sync: the encoder goes on.
        QTest::newRow("ProRes 422 Proxy with sound, 29.97 fps, on a disk that holds its syncs")
            << Take{MovieCodec::proRes422Proxy, 30000.0 / 1001, true, "prores", true};
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
        const auto start = record(recorder, 320, 180, take.fps, frames, take.sound);
        const int held = syncs; // under way while the frames kept coming
        if (take.holdsSyncs)
            release.set_value();
        QVERIFY(!take.holdsSyncs || held >= 1);
        QVERIFY2(start, "the recorder stopped taking frames");

        // At the stop the movie is closed as it was written, fragmented, and plays whole.
        std::promise<Recorder::Outcome> stopped;
        QStringList boxesAtStop;
        QVariantHash movieAtStop;
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
        QCOMPARE(recorder.droppedFrames(), 0);
        QCOMPARE(movieAtStop["video.nb_read_frames"].toInt(), frames);
        // A fragment about every second, not one per picture.
        const auto fragments = boxesAtStop.count("moof");
        QVERIFY2(fragments >= 3 && fragments <= 5, qPrintable(boxesAtStop.join(' ')));
        // Frames come faster than real time here, so syncs asked for while one runs are folded
        // into the next: at least one for a fragment and the last, never one per picture.
        QVERIFY2(syncs >= 2 && syncs <= fragments + 1, qPrintable(QString::number(syncs.load())));

        // After it, an ordinary movie under the same name, with its chapters.
        QCOMPARE(finished.get_future().get().result, FinishedMovie::Result::finished);
        checkOrdinary(path);
        const auto movie = probeMovie(path);
        QCOMPARE(movie["chapters"].toStringList(), (QStringList{"Q 1 Preshow", "Q 2 «Act One»"}));
        QCOMPARE(movie["video.codec_name"].toString(), take.codecName);
        QVERIFY(take.codec != MovieCodec::proRes422Proxy || movie["video.profile"] == "Proxy");
        QCOMPARE(movie["video.nb_read_frames"].toInt(), frames);
        // Each picture lasts as long as the camera's frame: the movie runs at the camera's rate.
        const double duration = movie["video.duration"].toDouble();
        QVERIFY2(std::abs(duration - frames / take.fps) <= 1.5 / take.fps,
                 qPrintable(QString::number(duration)));
        QCOMPARE(movie.contains("audio.codec_name"), take.sound);
        if (take.sound) {
            const QStringList audio{movie["audio.codec_name"].toString(),
                                    movie["audio.sample_rate"].toString(),
                                    movie["audio.channels"].toString()};
            QCOMPARE(audio, (QStringList{"aac", "48000", "2"}));
            QVERIFY2(std::abs(movie["audio.duration"].toDouble() - duration) < 0.1,
                     qPrintable(movie["audio.duration"].toString()));
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
        QCOMPARE(QSize(movie["video.width"].toInt(), movie["video.height"].toInt()),
                 QSize(kWidth, kHeight));
        QCOMPARE(movie["video.nb_read_frames"].toInt(), 40);
        for (const int scale : {1, 2}) {
            const int index = scale == 1 ? 10 : 30;
            const QByteArray decoded =
                runTool("ffmpeg",
                        {"-v", "error", "-i", path, "-vf", QString("select=eq(n\\,%1)").arg(index),
                         "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "bgra", "-"})
                    .value_or(QByteArray());
            QCOMPARE(decoded.size(), qsizetype(kWidth) * kHeight * 4);
            const QImage got(reinterpret_cast<const uchar*>(decoded.constData()), kWidth, kHeight,
                             QImage::Format_RGB32);
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
                        const QRgb a = got.pixel(x, y), b = bare.pixel(x * scale, y * scale);
                        total += std::abs(qRed(a) - qRed(b)) + std::abs(qGreen(a) - qGreen(b)) +
                                 std::abs(qBlue(a) - qBlue(b));
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

    // The main camera and an extra one record at once: each movie starts at its first frame
    // captured after the start was asked for. The main camera records its microphone; an
    // extra camera never records sound, though its engine has one.
    void liveCamerasRecordFromTheirStart()
    {
        QTemporaryDir folder;
        CameraFeed main(QUuid::createUuid()), extra(QUuid::createUuid());
        for (CameraFeed* camera : {&main, &extra}) {
            camera->engine().setTestPatternFormat({160, 90, 30});
            camera->engine().configure(TestPatternSource::kID, ToneSource::kID);
            QTRY_VERIFY_WITH_TIMEOUT(camera->engine().stats().framesPerSecond > 0 &&
                                         !camera->engine().stats().audioLevels.empty(),
                                     10000);
        }
        QSignalSpy started(&extra, &CameraFeed::recordingStarted);
        const Instant asked = Clock::system().now();
        main.engine().startRecording(folder.filePath("Main.mov"), MovieCodec::h264, true);
        extra.startRecording(folder.filePath("Extra.mov"), MovieCodec::h264);
        QVERIFY(started.wait(10000));
        QCOMPARE(started.at(0).at(0).value<MovieStart>(), extra.recordingStart());
        for (CameraFeed* camera : {&main, &extra}) {
            QTRY_VERIFY_WITH_TIMEOUT(camera->engine().recordedFramesForTesting() >= 20, 10000);
            const auto start = camera->recordingStart();
            QVERIFY(start && start->capturedAt >= addSeconds(asked, -0.1) &&
                    start->capturedAt <= Clock::system().now());
            std::optional<Recorder::Outcome> outcome;
            camera->stopRecording([&](Recorder::Outcome o) { outcome = o; });
            QVERIFY(!camera->recordingStart());
            QTRY_VERIFY_WITH_TIMEOUT(outcome && outcome->movie, 20000);
            QCOMPARE(*outcome, (Recorder::Outcome{outcome->movie, std::nullopt, start}));
            const auto movie = probeMovie(*outcome->movie);
            QCOMPARE(movie["video.codec_name"].toString(), "h264");
            QCOMPARE(movie.contains("audio.codec_name"), camera == &main);
        }
        QCOMPARE(started.count(), 1); // once a recording, not once a frame
    }

    // Recordings that make no movie. Stopped before the first frame, though sound came: no
    // file, and the camera that starts afterwards writes nothing to it. A movie that cannot
    // be created: the writer's message.
    void recordingsThatMakeNoMovie()
    {
        QTemporaryDir folder;
        const QString path = folder.filePath("Orvane.mov");
        CaptureEngine engine;
        std::optional<Recorder::Outcome> outcome;
        const auto stop = [&] {
            outcome.reset();
            engine.stopRecording([&](Recorder::Outcome o) { outcome = o; });
            return QTest::qWaitFor([&] { return outcome.has_value(); }, 10000);
        };
        engine.startRecording(path, MovieCodec::hevc, true);
        engine.configure(std::nullopt, ToneSource::kID); // after the recorder is in place
        QTRY_VERIFY_WITH_TIMEOUT(!engine.stats().audioLevels.empty(), 10000);
        QVERIFY(stop());
        QCOMPARE(*outcome, Recorder::Outcome{});
        engine.setTestPatternFormat({160, 90, 30});
        engine.configure(TestPatternSource::kID, std::nullopt);
        QTRY_COMPARE_WITH_TIMEOUT(engine.videoSize(), QSize(160, 90), 10000);
        QVERIFY(!QFile::exists(path));

        QSignalSpy failed(&engine, &CaptureEngine::recordingFailed);
        engine.startRecording(folder.filePath("missing folder/Orvane.mov"), MovieCodec::h264,
                              false);
        QVERIFY(failed.wait(10000));
        QVERIFY(stop());
        QVERIFY(!outcome->movie && !outcome->start && outcome->error);
        QCOMPARE(outcome->error->description(),
                 "The recording couldn't be saved. No such file or directory");
        QCOMPARE(failed.at(0).at(0).value<CaptureError>(), *outcome->error);
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
        QCOMPARE(probeMovie(path)["video.nb_read_frames"].toInt(), recorder.writtenFrames());
    }

    // A recording must survive the death of the program: the movie a crash leaves is made
    // ordinary later, as is one that was finished before and gets its chapters anew.
    void finishingMakesAnOrdinaryMovieWithChapters_data()
    {
        QTest::addColumn<bool>("finishedBefore");
        QTest::newRow("killed while writing: torn last fragment; a full disk at first") << false;
        QTest::newRow("finished before: chapters replaced") << true;
    }
    void finishingMakesAnOrdinaryMovieWithChapters()
    {
        QFETCH(bool, finishedBefore);
        QTemporaryDir folder;
        const QString path = folder.filePath("Show 2026-11-23.mov");
        writeMovie(path, finishedBefore);
        if (QTest::currentTestFailed())
            return;
        int readable = 100; // the pictures a player reads from the file as it is
        if (!finishedBefore) {
            readable = probeMovie(path)["video.nb_read_frames"].toInt();
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
        checkOrdinary(path);
        const auto movie = probeMovie(path);
        QVERIFY(movie.contains("audio.codec_name"));
        const int frames = movie["video.nb_read_frames"].toInt();
        // Of a torn fragment, every picture the file holds whole plays (a player may also
        // read the picture cut in two).
        QVERIFY2(frames >= readable - 1 && frames <= 100,
                 qPrintable(QStringLiteral("%1 of %2").arg(frames).arg(readable)));
        // In time order, each to the next, the last to the end; none past the end.
        QCOMPARE(movie["chapters"].toStringList(), (QStringList{"Q 11 «Doors»", "Q 12 Blackout"}));
        QCOMPARE(movie["chapter0.start_time"].toDouble(), 0.0);
        QCOMPARE(movie["chapter0.end_time"].toDouble(), 0.5);
        QVERIFY2(std::abs(movie["chapter1.end_time"].toDouble() -
                          movie["format.duration"].toDouble()) < 0.05,
                 qPrintable(movie["chapter1.end_time"].toString()));
    }
};

QTEST_MAIN(RecorderTest)
#include "RecorderTest.moc"
