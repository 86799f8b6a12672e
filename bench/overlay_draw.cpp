// The overlay on a camera's frame, as the capture thread does it once per frame: the busy
// show's panels drawn into their layers (only those whose content changed) and blended into
// the frame's YUV planes. `drawBusyShow` moves the figures every frame, as at 30 frames a
// second (the status panel's timecode is drawn again each time); `blendOnly` keeps them still,
// so nothing is drawn and the figure is the blend alone. Run with QT_MAX_CACHED_GLYPH_SIZE=256
// (the orvane executable sets it): without it Qt draws glyphs above 64 px as uncached paths.

#include "overlay/OverlayPicture.h"
#include "overlay/OverlayRenderer.h"
#include "overlay/YuvPlanes.h"

#include <QGuiApplication>

#include <benchmark/benchmark.h>

namespace {

using namespace orvane;

void overlayOnFrame(benchmark::State& state, bool moving)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const YuvImage frame = YuvImage::fromRgb(OverlayPicture::backdrop(QSize(width, height)));
    WallTime now = Clock::system().wallNow();
    const OverlayContent content = busyShowOverlayContent(now);
    OverlayRenderer renderer;
    renderer.draw(content, frame.planes(), now); // every layer drawn once
    const int drawnBefore = renderer.layersDrawn();
    for (auto _ : state) {
        if (moving)
            now = addSeconds(now, 1.0 / 30);
        renderer.draw(content, frame.planes(), now);
        benchmark::DoNotOptimize(frame.planes().y);
    }
    state.counters["layers_drawn_per_frame"] = benchmark::Counter(
        renderer.layersDrawn() - drawnBefore, benchmark::Counter::kAvgIterations);
}

void drawBusyShow(benchmark::State& state)
{
    overlayOnFrame(state, true);
}
void blendOnly(benchmark::State& state)
{
    overlayOnFrame(state, false);
}

BENCHMARK(drawBusyShow)
    ->Args({1920, 1080})
    ->Args({3840, 2160})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(blendOnly)
    ->Args({1920, 1080})
    ->Args({3840, 2160})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

} // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_MAX_CACHED_GLYPH_SIZE"))
        qputenv("QT_MAX_CACHED_GLYPH_SIZE", "256");
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
