#include "capture/Recorder.h"

#include "MovieProbe.h"
#include "base/ManualClock.h"
#include "capture/AudioSource.h"
#include "capture/CapturePipeline.h"
#include "capture/Frame.h"
#include "capture/TestPatternSource.h"
#include "capture/ToneSource.h"
#include "overlay/OverlayRenderer.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace orvane;

Q_DECLARE_METATYPE(orvane::MovieCodec)

namespace {

// Steps a test pattern camera (and a tone, when sound is recorded) through the capture
// pipeline into `recorder` for `frames` pictures, as the capture thread would, but without
// letting the recorder fall behind.
void record(Recorder& recorder, int width, int height, double fps, int frames, bool sound,
            std::shared_ptr<const OverlayContent> overlay = nullptr)
{
    ManualClock clock;
    CapturePipeline pipeline(clock);
    pipeline.setOverlay(std::move(overlay));
    TestPatternSource camera(clock, width, height, fps, TestPatternSource::Pacing::stepped);
    ToneSource tone(clock);
    AudioBuffer buffer;
    pipeline.setRecorder(std::shared_ptr<Recorder>(&recorder, [](Recorder*) {}));
    for (int i = 0; i < frames; ++i) {
        QCOMPARE(camera.waitForFrame(Seconds(0)), VideoSource::Wait::frameReady);
        recorder.waitForRoomForTesting();
        pipeline.captureFrame(camera);
        while (sound && tone.read(buffer) == AudioSource::Read::buffer)
            pipeline.captureAudio(buffer);
        clock.advance(1.0 / fps);
    }
    pipeline.setRecorder(nullptr);
}

} // namespace

class RecorderTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void writesTheChosenCodecAtTheFirstFramesSize_data();
    void writesTheChosenCodecAtTheFirstFramesSize();
    void theOverlayIsBurnedIn();
    void aRecordingWithoutFramesLeavesNoFile();
    void aMovieThatCannotBeCreatedFailsWithTheWritersMessage();
    void aFullQueueDropsFramesWithoutWaiting();
};

void RecorderTest::writesTheChosenCodecAtTheFirstFramesSize_data()
{
    QTest::addColumn<MovieCodec>("codec");
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<double>("fps");
    QTest::addColumn<bool>("sound");
    QTest::addColumn<QString>("codecName");
    QTest::addColumn<QString>("profile");
    QTest::newRow("H.264 with sound") << MovieCodec::h264 << 320 << 180 << 30.0 << true
                                      << "h264" << "";
    QTest::newRow("H.264 without sound, 25 fps")
        << MovieCodec::h264 << 256 << 144 << 25.0 << false << "h264" << "";
    QTest::newRow("HEVC with sound") << MovieCodec::hevc << 320 << 180 << 30.0 << true << "hevc"
                                     << "";
    QTest::newRow("ProRes 422 Proxy, 1080p")
        << MovieCodec::proRes422Proxy << 1920 << 1080 << 30.0 << false << "prores" << "Proxy";
    QTest::newRow("ProRes 422 Proxy with sound, 29.97 fps")
        << MovieCodec::proRes422Proxy << 320 << 240 << 30000.0 / 1001 << true << "prores"
        << "Proxy";
}

void RecorderTest::writesTheChosenCodecAtTheFirstFramesSize()
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
    const int frames = int(std::lround(2.5 * fps));
    Recorder recorder(path, codec, sound);
    record(recorder, width, height, fps, frames, sound);
    const auto outcome = recorder.finishAndWait();
    QCOMPARE(outcome, (Recorder::Outcome{path, std::nullopt}));
    QCOMPARE(recorder.droppedFrames(), 0);

    const auto movie = probeMovie(path);
    QVERIFY(movie);
    QVERIFY2(movie->formatName.contains(QLatin1String("mov")), qPrintable(movie->formatName));
    const ProbedStream* video = movie->stream(QStringLiteral("video"));
    QVERIFY(video);
    QCOMPARE(video->codec, codecName);
    if (!profile.isEmpty())
        QCOMPARE(video->profile, profile);
    QCOMPARE(video->width, width);
    QCOMPARE(video->height, height);
    QVERIFY2(std::abs(video->frameRate - fps) < 0.01, qPrintable(QString::number(video->frameRate)));
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
    // A movie that was finished normally is an ordinary one: one index, no fragments.
    const QStringList boxes = topLevelBoxes(path);
    QVERIFY2(boxes.contains(QStringLiteral("moov")) && !boxes.contains(QStringLiteral("moof")),
             qPrintable(boxes.join(QLatin1Char(' '))));
    QCOMPARE(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden),
             QStringList{QStringLiteral("Camera 1.mov")});
}

void RecorderTest::theOverlayIsBurnedIn()
{
    constexpr int kWidth = 640;
    constexpr int kHeight = 360;
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Camera 1.mov"));
    ManualClock clock;
    const auto content = std::make_shared<const OverlayContent>(
        busyShowOverlayContent(clock.wallNow()));
    Recorder recorder(path, MovieCodec::h264, false);
    record(recorder, kWidth, kHeight, 30, 12, false, content);
    QVERIFY(recorder.finishAndWait().movie);

    // The bare picture of the same frame, as the camera gave it.
    std::vector<std::uint8_t> bare(std::size_t(kWidth) * kHeight * 4);
    Frame frame;
    frame.pixels = bare.data();
    frame.width = kWidth;
    frame.height = kHeight;
    frame.bytesPerLine = kWidth * 4;
    TestPatternSource(clock, kWidth, kHeight, 30).paint(frame, 10);
    const QByteArray decoded = decodePicture(path, 10, kWidth, kHeight);
    QVERIFY(!decoded.isEmpty());

    const auto arranged = OverlayRenderer().arrange(*content, QSizeF(kWidth, kHeight),
                                                    clock.wallNow());
    QVERIFY(arranged.size() >= 3);
    auto difference = [&](int x, int y) {
        const std::size_t at = (std::size_t(y) * kWidth + std::size_t(x)) * 4;
        int sum = 0;
        for (int c = 0; c < 3; ++c)
            sum += std::abs(int(std::uint8_t(decoded[qsizetype(at) + c])) - int(bare[at + c]));
        return sum / 3.0;
    };
    for (const auto& item : arranged) {
        const QRect panel = item.frame.toAlignedRect() & QRect(0, 0, kWidth, kHeight);
        double total = 0;
        for (int y = panel.top(); y <= panel.bottom(); ++y)
            for (int x = panel.left(); x <= panel.right(); ++x)
                total += difference(x, y);
        const double mean = total / (double(panel.width()) * panel.height());
        QVERIFY2(mean > 12, qPrintable(QStringLiteral("panel at %1,%2: %3")
                                           .arg(panel.x()).arg(panel.y()).arg(mean)));
    }
    // Away from the panels the picture is the camera's, give or take the codec.
    double total = 0;
    int counted = 0;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const bool covered = std::any_of(arranged.begin(), arranged.end(), [&](const auto& a) {
                return a.frame.adjusted(-12, -12, 12, 12).contains(QPointF(x, y));
            });
            if (covered)
                continue;
            total += difference(x, y);
            ++counted;
        }
    QVERIFY(counted > kWidth * kHeight / 4);
    QVERIFY2(total / counted < 6, qPrintable(QString::number(total / counted)));
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
    pipeline.setRecorder(std::shared_ptr<Recorder>(&recorder, [](Recorder*) {}));
    constexpr int kFrames = 60;
    for (int i = 0; i < kFrames; ++i) {
        camera.waitForFrame(Seconds(0));
        pipeline.captureFrame(camera);
        clock.advance(1.0 / 30);
    }
    pipeline.setRecorder(nullptr);
    const auto outcome = recorder.finishAndWait();
    QVERIFY(outcome.movie);
    // 60 pictures arrive at once and a ProRes picture takes tens of milliseconds: had the
    // hand-over waited for the encoder, none would be lost.
    QVERIFY(recorder.droppedFrames() > 0);
    QCOMPARE(pipeline.stats().droppedFrames, recorder.droppedFrames());
    QCOMPARE(recorder.writtenFrames() + recorder.droppedFrames(), kFrames);
    const auto movie = probeMovie(path);
    QVERIFY(movie);
    QCOMPARE(movie->stream(QStringLiteral("video"))->frameCount, recorder.writtenFrames());
}

QTEST_MAIN(RecorderTest)
#include "RecorderTest.moc"
