// Drawing the busy show's overlay into BGRA frames, as the capture thread does once per frame.
// Run with QT_MAX_CACHED_GLYPH_SIZE=256 (the orvane executable sets it): without it Qt draws
// glyphs above 64 px as uncached paths and 2160p frames cost ten times more.

#include "overlay/OverlayPicture.h"
#include "overlay/OverlayRenderer.h"

#include <QGuiApplication>

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using namespace orvane;

void drawBusyShow(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    // One frame of memory, as a capture buffer, with the backdrop in it.
    const QImage backdrop = OverlayPicture::backdrop(QSize(width, height));
    std::vector<uchar> memory(backdrop.constBits(), backdrop.constBits() + backdrop.sizeInBytes());
    QImage frame(memory.data(), width, height, backdrop.bytesPerLine(), QImage::Format_RGB32);

    WallTime now = Clock::system().wallNow();
    const OverlayContent content = busyShowOverlayContent(now);
    OverlayRenderer renderer;
    for (auto _ : state) {
        // The figures move every frame, as they do at 30 frames a second.
        now = addSeconds(now, 1.0 / 30);
        renderer.draw(content, frame, now);
        benchmark::DoNotOptimize(memory.data());
    }
}
BENCHMARK(drawBusyShow)
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
