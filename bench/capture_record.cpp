// Recording in real time: the test pattern camera captured, overlaid with a busy moment of a
// show and recorded for a while at its own pace, as in a show. Reports the CPU time the whole process spends per
// captured frame and the frames lost on the way (late capture, full pool, full recorder
// queue). Not run by CTest. `bench_capture_record --seconds 60` sets the length of each run
// (default 60).

#include "base/Clock.h"
#include "capture/CapturePipeline.h"
#include "capture/Frame.h"
#include "capture/Recorder.h"
#include "capture/TestPatternSource.h"
#include "overlay/OverlayContent.h"

#include <QDir>
#include <QGuiApplication>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <atomic>
#include <cstring>
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

struct CameraRun {
    int frames = 0;
    int dropped = 0;
    int written = 0;
};

// One camera as its engine runs it: a capture thread that waits for each picture, runs the
// pipeline and hands the frame to the recorder.
CameraRun runCamera(const QString& path, MovieCodec codec, int width, int height)
{
    Clock& clock = Clock::system();
    CapturePipeline pipeline(clock);
    pipeline.setOverlay(std::make_shared<const OverlayContent>(busyShowOverlayContent(clock.wallNow())));
    TestPatternSource camera(clock, width, height, 30);
    auto recorder = std::make_shared<Recorder>(path, codec, false);
    pipeline.setRecorder(recorder);
    CameraRun run;
    const Instant end = addSeconds(clock.now(), secondsPerRun);
    while (clock.now() < end) {
        if (camera.waitForFrame(Seconds(0.02)) != VideoSource::Wait::frameReady)
            continue;
        if (pipeline.captureFrame(camera))
            ++run.frames;
    }
    pipeline.setRecorder(nullptr);
    const auto outcome = recorder->finishAndWait();
    run.dropped = pipeline.stats().droppedFrames;
    run.written = recorder->writtenFrames();
    if (!outcome.movie)
        run.dropped = run.frames;
    return run;
}

void recordCameras(benchmark::State& state, MovieCodec codec, int cameras, int width, int height)
{
    QTemporaryDir folder;
    for (auto _ : state) {
        std::vector<CameraRun> runs(std::size_t(cameras), CameraRun{});
        const double cpuBefore = processCPUSeconds();
        std::vector<std::thread> threads;
        for (int i = 0; i < cameras; ++i)
            threads.emplace_back([&, i] {
                runs[std::size_t(i)] = runCamera(
                    QDir(folder.path()).filePath(QStringLiteral("Camera %1.mov").arg(i + 1)),
                    codec, width, height);
            });
        for (auto& thread : threads)
            thread.join();
        const double cpu = processCPUSeconds() - cpuBefore;
        int frames = 0;
        int dropped = 0;
        int written = 0;
        for (const auto& run : runs) {
            frames += run.frames;
            dropped += run.dropped;
            written += run.written;
        }
        state.counters["frames"] = frames;
        state.counters["written"] = written;
        state.counters["dropped"] = dropped;
        // Capture, overlay, conversion and encoding of one recorded frame.
        state.counters["cpu_ms_per_frame"] = written > 0 ? cpu * 1000 / written : 0;
        state.counters["cpu_cores_busy"] = cpu / secondsPerRun;
    }
}

} // namespace

BENCHMARK_CAPTURE(recordCameras, h264_1080p30, MovieCodec::h264, 1, 1920, 1080)
    ->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(recordCameras, hevc_1080p30, MovieCodec::hevc, 1, 1920, 1080)
    ->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(recordCameras, prores_proxy_1080p30, MovieCodec::proRes422Proxy, 1, 1920,
                  1080)
    ->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(recordCameras, h264_4x720p30, MovieCodec::h264, 4, 1280, 720)
    ->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

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
