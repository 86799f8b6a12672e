// Recording in real time: the test pattern camera captured, overlaid with a busy moment of a
// show and recorded for a while at its own pace, as in a show. Reports the CPU time the whole
// process spends per captured frame, the frames lost on the way (late capture, full pool,
// full recorder queue) and the longest time a frame waited in the recorder's queue, with the
// disk at full speed and with every sync slowed to 200 ms (a USB stick, a spinning disk);
// `watched` adds a web viewer's work: the newest frame encoded by the web viewer's JpegEncoder,
// at most 25 a second, on a thread of its own. The `encoder_alone` cases give the figure to
// hold these against: the same MovieWriter (the same encoder and options, the same muxer)
// fed frames made beforehand (the test pattern with the overlay, already in YUV), as fast as
// it takes them, for as many frames as a run records. Not run by CTest.
// `bench_capture_record --seconds 60` sets the length of each run (default 60).

#include "base/Clock.h"
#include "capture/CaptureEngine.h"
#include "capture/CapturePipeline.h"
#include "capture/Frame.h"
#include "capture/FramePool.h"
#include "capture/FrameSink.h"
#include "capture/Recorder.h"
#include "capture/TestPatternSource.h"
#include "overlay/OverlayContent.h"
#include "overlay/OverlayRenderer.h"
#include "outputs/JpegEncoder.h"

#include <QDir>
#include <QGuiApplication>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

using namespace orvane;

namespace {

double secondsPerRun = 60;

double processCPUSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

enum class Disk { fast, slowSyncs };
enum class Viewer { none, watched };

// The web viewer's share of the work: it keeps the newest frame and encodes it when it is
// free and 40 ms have passed since the last encode.
class JpegWatcher final : public FrameSink {
public:
    JpegWatcher()
        : thread_([this] { run(); })
    {
    }
    ~JpegWatcher() override
    {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    void takeFrame(std::shared_ptr<const Frame> frame, double) override
    {
        const auto now = std::chrono::steady_clock::now();
        {
            std::lock_guard lock(mutex_);
            if (waiting_ || busy_ || now - lastEncode_ < std::chrono::milliseconds(40))
                return;
            lastEncode_ = now;
            waiting_ = std::move(frame);
        }
        wake_.notify_one();
    }
    int encoded() const { return encoded_; }

private:
    void run()
    {
        JpegEncoder encoder;
        for (;;) {
            std::shared_ptr<const Frame> frame;
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [this] { return stopping_ || waiting_; });
                if (stopping_)
                    return;
                frame = std::move(waiting_);
                busy_ = true;
            }
            benchmark::DoNotOptimize(encoder.encode(*frame).size());
            frame.reset();
            ++encoded_;
            std::lock_guard lock(mutex_);
            busy_ = false;
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::shared_ptr<const Frame> waiting_;
    bool busy_ = false;
    bool stopping_ = false;
    std::chrono::steady_clock::time_point lastEncode_{};
    std::atomic<int> encoded_{0};
    std::thread thread_;
};

struct CameraRun {
    int frames = 0;
    int dropped = 0;
    std::shared_ptr<Recorder> recorder;
};

// One camera as its engine runs it: a capture thread that waits for each picture, runs the
// pipeline and hands the frame to the recorder. The recorder is handed back still running.
CameraRun runCamera(const QString& path, MovieCodec codec, int width, int height, Disk disk,
                    Viewer viewer)
{
    // The engine's capture thread runs ahead of the encoder's threads; so does this one.
    CaptureEngine::raiseCaptureThreadPriority();
    Clock& clock = Clock::system();
    CapturePipeline pipeline(clock);
    pipeline.setOverlay(
        std::make_shared<const OverlayContent>(busyShowOverlayContent(clock.wallNow())));
    TestPatternSource camera(clock, width, height, 30);
    MovieWriter::SyncStep sync;
    if (disk == Disk::slowSyncs)
        sync = [](int fd) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            MovieWriter::syncData(fd);
        };
    auto recorder = std::make_shared<Recorder>(path, codec, false, sync);
    pipeline.setRecorder(recorder);
    std::shared_ptr<JpegWatcher> watcher;
    if (viewer == Viewer::watched) {
        watcher = std::make_shared<JpegWatcher>();
        pipeline.addSink(watcher);
    }
    CameraRun run;
    const Instant end = addSeconds(clock.now(), secondsPerRun);
    while (clock.now() < end) {
        if (camera.waitForFrame(Seconds(0.02)) != VideoSource::Wait::frameReady)
            continue;
        if (pipeline.captureFrame(camera))
            ++run.frames;
    }
    pipeline.setRecorder(nullptr);
    run.dropped = pipeline.stats().droppedFrames;
    run.recorder = std::move(recorder);
    return run;
}

void recordCameras(benchmark::State& state, MovieCodec codec, int cameras, int width, int height,
                   Disk disk, Viewer viewer)
{
    QTemporaryDir folder;
    for (auto _ : state) {
        std::vector<CameraRun> runs(std::size_t(cameras), CameraRun{});
        const double cpuBefore = processCPUSeconds();
        std::vector<std::thread> threads;
        for (int i = 0; i < cameras; ++i)
            threads.emplace_back([&, i] {
                runs[std::size_t(i)] = runCamera(
                    QDir(folder.path()).filePath(QStringLiteral("Camera %1.mov").arg(i + 1)), codec,
                    width, height, disk, viewer);
            });
        for (auto& thread : threads)
            thread.join();
        // Stopped: what is queued is written and the fragmented movie closed. The rewrite
        // as an ordinary movie that follows is not the show's work and is not counted.
        std::vector<std::future<Recorder::Outcome>> stops;
        for (auto& run : runs) {
            auto stopped = std::make_shared<std::promise<Recorder::Outcome>>();
            stops.push_back(stopped->get_future());
            run.recorder->finish([stopped](Recorder::Outcome o) { stopped->set_value(o); });
        }
        for (auto& stop : stops)
            stop.wait();
        const double cpu = processCPUSeconds() - cpuBefore;
        int frames = 0;
        int dropped = 0;
        int written = 0;
        double longestWait = 0;
        for (std::size_t i = 0; i < runs.size(); ++i) {
            frames += runs[i].frames;
            dropped += runs[i].dropped;
            written += runs[i].recorder->writtenFrames();
            longestWait = std::max(longestWait, runs[i].recorder->longestQueueWait());
            if (!stops[i].get().movie)
                dropped += runs[i].frames;
        }
        for (auto& run : runs)
            run.recorder->waitUntilFinished(Seconds(600));
        state.counters["frames"] = frames;
        state.counters["written"] = written;
        state.counters["dropped"] = dropped;
        // Capture, overlay, conversion and encoding of one recorded frame.
        state.counters["cpu_ms_per_frame"] = written > 0 ? cpu * 1000 / written : 0;
        state.counters["cpu_cores_busy"] = cpu / secondsPerRun;
        state.counters["longest_queue_wait_ms"] = longestWait * 1000;
    }
}

// The encoder alone: `cameras` MovieWriters, each on a thread of its own, fed a second of
// frames made beforehand, over and over, for as many frames as a run of the camera records.
void encoderAlone(benchmark::State& state, MovieCodec codec, int cameras, int width, int height)
{
    QTemporaryDir folder;
    // A second of the test pattern with the busy show's overlay, in a pool of its own.
    constexpr int kMade = 30;
    FramePool pool(width, height, kMade);
    std::vector<std::shared_ptr<const Frame>> made;
    {
        TestPatternSource camera(Clock::system(), width, height, 30,
                                 TestPatternSource::Pacing::stepped);
        OverlayRenderer renderer;
        WallTime now = Clock::system().wallNow();
        const OverlayContent content = busyShowOverlayContent(now);
        for (int i = 0; i < kMade; ++i) {
            std::shared_ptr<Frame> frame = pool.acquire();
            camera.paint(*frame, i);
            frame->frameDuration = 1.0 / 30;
            now = addSeconds(now, 1.0 / 30);
            renderer.draw(content, frame->planes(), now);
            made.push_back(std::move(frame));
        }
    }
    const int frames = int(secondsPerRun * 30);
    for (auto _ : state) {
        const double cpuBefore = processCPUSeconds();
        std::vector<std::thread> threads;
        std::atomic<int> written{0};
        for (int i = 0; i < cameras; ++i)
            threads.emplace_back([&, i] {
                MovieWriter::Video video;
                video.codec = codec;
                video.width = width;
                video.height = height;
                QString error;
                auto writer = MovieWriter::create(
                    QDir(folder.path()).filePath(QStringLiteral("Alone %1.mov").arg(i + 1)),
                    video, false, error);
                if (!writer)
                    return;
                for (int n = 0; n < frames; ++n)
                    if (writer->writeVideo(made[std::size_t(n % kMade)], n))
                        ++written;
                writer->finish();
            });
        for (auto& thread : threads)
            thread.join();
        const double cpu = processCPUSeconds() - cpuBefore;
        const int count = written.load();
        state.counters["written"] = count;
        state.counters["cpu_ms_per_frame"] = count > 0 ? cpu * 1000 / count : 0;
    }
}

} // namespace

#define RECORD(name, codec, cameras, width, height, disk, viewer)                                  \
    BENCHMARK_CAPTURE(recordCameras, name, codec, cameras, width, height, disk, viewer)            \
        ->Iterations(1)                                                                            \
        ->UseRealTime()                                                                            \
        ->Unit(benchmark::kSecond);

RECORD(h264_1080p30, MovieCodec::h264, 1, 1920, 1080, Disk::fast, Viewer::none)
RECORD(h264_1080p30_slow_syncs, MovieCodec::h264, 1, 1920, 1080, Disk::slowSyncs, Viewer::none)
RECORD(hevc_1080p30, MovieCodec::hevc, 1, 1920, 1080, Disk::fast, Viewer::none)
RECORD(hevc_1080p30_slow_syncs, MovieCodec::hevc, 1, 1920, 1080, Disk::slowSyncs, Viewer::none)
RECORD(hevc_1080p30_watched, MovieCodec::hevc, 1, 1920, 1080, Disk::fast, Viewer::watched)
RECORD(prores_proxy_1080p30, MovieCodec::proRes422Proxy, 1, 1920, 1080, Disk::fast, Viewer::none)
RECORD(prores_proxy_1080p30_slow_syncs, MovieCodec::proRes422Proxy, 1, 1920, 1080, Disk::slowSyncs,
       Viewer::none)
RECORD(h264_4x720p30, MovieCodec::h264, 4, 1280, 720, Disk::fast, Viewer::none)
RECORD(h264_4x720p30_slow_syncs, MovieCodec::h264, 4, 1280, 720, Disk::slowSyncs, Viewer::none)

#define ALONE(name, codec, cameras, width, height)                                                \
    BENCHMARK_CAPTURE(encoderAlone, name, codec, cameras, width, height)                          \
        ->Iterations(1)                                                                            \
        ->UseRealTime()                                                                            \
        ->Unit(benchmark::kSecond);

ALONE(encoder_alone_h264_1080p30, MovieCodec::h264, 1, 1920, 1080)
ALONE(encoder_alone_hevc_1080p30, MovieCodec::hevc, 1, 1920, 1080)
ALONE(encoder_alone_prores_proxy_1080p30, MovieCodec::proRes422Proxy, 1, 1920, 1080)
ALONE(encoder_alone_h264_4x720p30, MovieCodec::h264, 4, 1280, 720)

int main(int argc, char** argv)
{
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc)
            secondsPerRun = std::atof(argv[++i]);
        else
            rest.push_back(argv[i]);
    }
    int restCount = int(rest.size());
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(restCount, rest.data());
    benchmark::Initialize(&restCount, rest.data());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
