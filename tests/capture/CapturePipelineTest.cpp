#include "capture/CapturePipeline.h"

#include "base/ManualClock.h"
#include "capture/AudioSource.h"
#include "capture/Frame.h"
#include "capture/FrameSink.h"
#include "capture/Recorder.h"
#include "capture/TestPatternSource.h"
#include "capture/ToneSource.h"

#include <QTest>

#include <array>
#include <cstring>
#include <deque>

using namespace orvane;

namespace {

// A camera whose pictures carry whatever presentation time the test gives them.
class StampedSource final : public VideoSource {
public:
    std::optional<Instant> nextPresentedAt;

    int width() const override { return 8; }
    int height() const override { return 4; }
    double frameDuration() const override { return 1.0 / 25; }
    Wait waitForFrame(Seconds) override { return Wait::frameReady; }
    std::optional<Instant> readFrame(Frame& frame) override
    {
        std::memset(frame.data[0], 0x40, frame.bytes);
        return nextPresentedAt;
    }
    void skipFrame() override {}
};

// Holds on to the newest `count` of every `every`th frame it is given, as a consumer at its
// busiest does (the recorder: its full queue and the one being encoded; the web viewer, slower
// than the camera: one being encoded and one waiting); by default to all, as a slow one would.
class KeepingSink final : public FrameSink {
public:
    explicit KeepingSink(std::size_t count = SIZE_MAX, int every = 1)
        : count_(count)
        , every_(every)
    {
    }
    std::deque<std::shared_ptr<const Frame>> frames;
    std::function<void()> duringCall;
    void takeFrame(std::shared_ptr<const Frame> frame, double) override
    {
        if (given_++ % every_ == 0)
            frames.push_back(std::move(frame));
        if (frames.size() > count_)
            frames.pop_front();
        if (duringCall)
            duringCall();
    }

private:
    std::size_t count_;
    int every_;
    int given_ = 0;
};

// Y, Cb and Cr of one pixel.
std::array<int, 3> pixel(const Frame& frame, int x, int y)
{
    return {frame.data[0][y * frame.stride[0] + x], frame.data[1][y / 2 * frame.stride[1] + x / 2],
            frame.data[2][y / 2 * frame.stride[2] + x / 2]};
}

// Waits for the test pattern's next picture and takes it.
std::shared_ptr<const Frame> capture(CapturePipeline& pipeline, TestPatternSource& source)
{
    if (!QTest::qVerify(source.waitForFrame(Seconds(0)) == VideoSource::Wait::frameReady,
                        "frameReady", "", __FILE__, __LINE__))
        return nullptr;
    return pipeline.captureFrame(source);
}

} // namespace

class CapturePipelineTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void framesAreStampedWithTheirMomentOfCapture_data()
    {
        QTest::addColumn<std::optional<double>>("secondsAgo"); // the presentation time's
        QTest::addColumn<double>("age");
        QTest::newRow("unknown time") << std::optional<double>() << 0.0;
        QTest::newRow("now") << std::optional(0.0) << 0.0;
        QTest::newRow("a quarter second ago") << std::optional(0.25) << 0.25;
        QTest::newRow("three seconds ago: at most one") << std::optional(3.0) << 1.0;
        QTest::newRow("from the future") << std::optional(-2.0) << 0.0;
    }
    void framesAreStampedWithTheirMomentOfCapture()
    {
        QFETCH(std::optional<double>, secondsAgo);
        QFETCH(double, age);
        ManualClock clock;
        clock.advance(100.0);
        CapturePipeline pipeline(clock);
        StampedSource source;
        if (secondsAgo)
            source.nextPresentedAt = addSeconds(clock.now(), -*secondsAgo);
        const auto frame = pipeline.captureFrame(source);
        QVERIFY(frame);
        QCOMPARE(frame->capturedAt, addSeconds(clock.now(), -age));
        QCOMPARE(frame->wallCapturedAt, addSeconds(clock.wallNow(), -age));
        QCOMPARE(frame->frameDuration, 1.0 / 25);
    }

    void frameRateCountsFramesInTheLastSecond()
    {
        ManualClock clock;
        CapturePipeline pipeline(clock);
        StampedSource source;
        for (int i = 0; i < 100; ++i, clock.advance(0.04))
            pipeline.captureFrame(source);
        const CaptureStats stats = pipeline.stats();
        QVERIFY2(stats.framesPerSecond == 25 || stats.framesPerSecond == 26,
                 qPrintable(QString::number(stats.framesPerSecond)));
        QCOMPARE(QSize(stats.width, stats.height), QSize(8, 4));
        // With no more frames the value stands until the next frame comes.
        clock.advance(5.0);
        QCOMPARE(pipeline.stats().framesPerSecond, stats.framesPerSecond);
        pipeline.captureFrame(source);
        QCOMPARE(pipeline.stats().framesPerSecond, 1.0);
    }

    void lateWakeUpsAndFullPoolsAreCountedAsDrops()
    {
        ManualClock clock;
        CapturePipeline pipeline(clock);
        TestPatternSource source(clock, 64, 36, 30, TestPatternSource::Pacing::stepped);
        auto sink = std::make_shared<KeepingSink>();
        pipeline.addSink(sink);
        capture(pipeline, source);
        QCOMPARE(source.waitForFrame(Seconds(0)), VideoSource::Wait::nothingYet);
        // The thread wakes three and a half frames late: the missed pictures are lost.
        clock.advance(3.5 / 30);
        auto frame = capture(pipeline, source);
        QCOMPARE(frame->number, 3);
        QCOMPARE(pipeline.stats().droppedFrames, 2);
        // The sink holds every frame: once the pool is spent, pictures are dropped, not waited for.
        for (int i = 0; i < CapturePipeline::kPoolFrames + 3; ++i) {
            clock.advance(1.0 / 30);
            capture(pipeline, source);
        }
        frame.reset();
        QCOMPARE(int(sink->frames.size()), CapturePipeline::kPoolFrames);
        // It held two already, so the rest of the pool fits and five more were lost.
        QCOMPARE(pipeline.stats().droppedFrames, 2 + 5);
        sink->frames.clear();
        clock.advance(1.0 / 30);
        QVERIFY(capture(pipeline, source));
    }

    void thePoolServesEveryConsumerAtOnce()
    {
        // A recording runs while the web viewer and NDI each hold two frames of their own and
        // the preview its one: no picture may be lost for want of a buffer.
        ManualClock clock;
        CapturePipeline pipeline(clock);
        TestPatternSource source(clock, 64, 36, 30, TestPatternSource::Pacing::stepped);
        pipeline.addSink(std::make_shared<KeepingSink>(std::size_t(Recorder::kHeldFrames)));
        pipeline.addSink(std::make_shared<KeepingSink>(2, 7));
        pipeline.addSink(std::make_shared<KeepingSink>(2, 11));
        for (int i = 0; i < 100; ++i, clock.advance(1.0 / 30))
            QVERIFY2(capture(pipeline, source), qPrintable(QString("frame %1").arg(i)));
        QCOMPARE(pipeline.stats().droppedFrames, 0);
    }

    void everySinkAndThePreviewGetTheSameFrame()
    {
        ManualClock clock;
        CapturePipeline pipeline(clock);
        StampedSource source;
        // The first sink removes itself while it is called.
        auto leaving = std::make_shared<KeepingSink>();
        auto staying = std::make_shared<KeepingSink>();
        leaving->duringCall = [&] { pipeline.removeSink(leaving.get()); };
        pipeline.addSink(leaving);
        pipeline.addSink(staying);
        const auto frame = pipeline.captureFrame(source);
        QCOMPARE(pipeline.latestFrame(), frame);
        QCOMPARE(leaving->frames.at(0), frame);
        QCOMPARE(staying->frames.at(0), frame);
        pipeline.captureFrame(source);
        QCOMPARE(leaving->frames.size(), std::size_t(1));
        QCOMPARE(staying->frames.size(), std::size_t(2));
    }

    void mirroringFlipsEachRowAndItsChroma()
    {
        ManualClock clock;
        CapturePipeline plain(clock), mirrored(clock);
        mirrored.setMirrored(true);
        TestPatternSource first(clock, 160, 90, 30, TestPatternSource::Pacing::stepped);
        TestPatternSource second(clock, 160, 90, 30, TestPatternSource::Pacing::stepped);
        const auto a = plain.captureFrame(first);
        const auto b = mirrored.captureFrame(second);
        bool differs = false;
        for (int y = 0; y < 90; y += 7)
            for (int x = 0; x < 160; ++x) {
                QCOMPARE(pixel(*b, x, y), pixel(*a, 159 - x, y));
                differs = differs || pixel(*b, x, y) != pixel(*a, x, y);
            }
        QVERIFY(differs);
    }

    // A sine of amplitude A has the average power A²/2.
    void soundLevelsFollowTheGain_data()
    {
        QTest::addColumn<float>("amplitude");
        QTest::addColumn<float>("gain");
        QTest::addColumn<float>("level");
        QTest::newRow("half scale") << 0.5f << 1.0f << -9.03f;
        QTest::newRow("half scale doubled") << 0.5f << 2.0f << -3.01f;
        QTest::newRow("quarter scale halved") << 0.25f << 0.5f << -21.07f;
        QTest::newRow("muted") << 0.5f << 0.0f << -160.0f;
        QTest::newRow("silence") << 0.0f << 1.0f << -160.0f;
    }
    void soundLevelsFollowTheGain()
    {
        QFETCH(float, amplitude);
        QFETCH(float, gain);
        QFETCH(float, level);
        ManualClock clock;
        CapturePipeline pipeline(clock);
        pipeline.setGain(gain);
        ToneSource tone(clock, 1000.0, amplitude);
        AudioBuffer buffer;
        QCOMPARE(tone.read(buffer), AudioSource::Read::nothing);
        clock.advance(0.1);
        int pieces = 0;
        for (; tone.read(buffer) == AudioSource::Read::buffer; ++pieces) {
            QCOMPARE(buffer.frameCount(), 480);
            pipeline.captureAudio(buffer);
        }
        QCOMPARE(pieces, 10);
        const auto levels = pipeline.stats().audioLevels;
        QCOMPARE(levels.size(), std::size_t(2));
        for (float measured : levels)
            QVERIFY2(std::abs(measured - level) < 0.05f, qPrintable(QString::number(measured)));
    }
};

QTEST_GUILESS_MAIN(CapturePipelineTest)
#include "CapturePipelineTest.moc"
