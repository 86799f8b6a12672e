// How fast a packet from the wire goes through the one door into the show data: decode once,
// then the whole dispatcher.

#include "app/ShowInput.h"
#include "base/ManualClock.h"
#include "show/ShowData.h"

#include <benchmark/benchmark.h>

namespace {

void receiveActiveCueText(benchmark::State& state)
{
    orvane::ManualClock clock;
    orvane::ShowData show(clock);
    orvane::ShowInput input(show, clock);
    const QByteArray packet = orvane::encodeOSC(
        {"/eos/out/active/cue/text", {std::string("1/14 Opening Number 5.0 45%")}});
    const orvane::ShowInput::Sender console{QStringLiteral("10.0.0.5"),
                                            QHostAddress(QStringLiteral("10.0.0.5")), 0};
    for (auto _ : state) {
        clock.advance(0.05);
        input.receive(packet, console);
    }
}
BENCHMARK(receiveActiveCueText);

} // namespace

BENCHMARK_MAIN();
