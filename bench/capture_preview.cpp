// A camera view's picture, once per frame on the main thread: a 1920 x 1080 frame scaled to
// the size it is shown and converted to RGB, by libswscale into a kept picture (FramePreview)
// and by the plain per-pixel loop (yuv::toRgb) that image export uses.

#include "capture/FramePreview.h"
#include "overlay/OverlayPicture.h"
#include "overlay/YuvPlanes.h"

#include <benchmark/benchmark.h>

namespace {

using namespace orvane;

const YuvImage& frame()
{
    static const YuvImage image = YuvImage::fromRgb(OverlayPicture::backdrop(QSize(1920, 1080)));
    return image;
}

void framePreview(benchmark::State& state)
{
    const QSize shown(int(state.range(0)), int(state.range(1)));
    FramePreview preview;
    for (auto _ : state)
        benchmark::DoNotOptimize(preview.convert(frame().planes(), shown).constBits());
}

void perPixelLoop(benchmark::State& state)
{
    const QSize shown(int(state.range(0)), int(state.range(1)));
    for (auto _ : state)
        benchmark::DoNotOptimize(yuv::toRgb(frame().planes(), shown).constBits());
}

BENCHMARK(framePreview)->Args({960, 540})->Args({1117, 628})->Args({1600, 900})->Unit(benchmark::kMillisecond);
BENCHMARK(perPixelLoop)->Args({960, 540})->Args({1117, 628})->Args({1600, 900})->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
