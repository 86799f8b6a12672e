// How fast the show data takes in the cue text an Eos console sends during a fade.

#include "base/ManualClock.h"
#include "show/EosCue.h"
#include "show/ShowData.h"

#include <benchmark/benchmark.h>

namespace {

void parseCueText(benchmark::State& state)
{
    const QString text = QStringLiteral("1/14P2 Chase Starts 4.0 30%");
    for (auto _ : state)
        benchmark::DoNotOptimize(orvane::EosCue::parse(text));
}
BENCHMARK(parseCueText);

// One active cue text through the whole dispatcher: parse, fade clocks, parts and signals.
void handleActiveCueText(benchmark::State& state)
{
    orvane::ManualClock clock;
    orvane::ShowData show(clock);
    const orvane::OSCMessage messages[] = {
        {"/eos/out/active/cue/text", {std::string("1/14 Opening Number 5.0 45%")}},
        {"/eos/out/active/cue/text", {std::string("1/14P2 Chase Starts 4.0 30%")}},
    };
    int i = 0;
    for (auto _ : state) {
        clock.advance(0.05);
        show.handle(messages[i++ & 1], QStringLiteral("10.0.0.5"));
    }
}
BENCHMARK(handleActiveCueText);

} // namespace

BENCHMARK_MAIN();
