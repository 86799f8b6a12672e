// How fast the OSC codec reads and writes the messages a busy show sends.

#include "osc/OSCMessage.h"

#include <benchmark/benchmark.h>

namespace {

orvane::OSCMessage cueText()
{
    return {"/eos/out/active/cue/text", {std::string("1/14 Intro 5.0 40%")}};
}

QByteArray bundleOfTen()
{
    const QByteArray element = orvane::encodeOSC(cueText());
    QByteArray bundle("#bundle\0\0\0\0\0\0\0\0\1", 16);
    for (int i = 0; i < 10; ++i) {
        const auto size = static_cast<quint32>(element.size());
        const char header[4] = {char(size >> 24), char(size >> 16), char(size >> 8), char(size)};
        bundle.append(header, 4);
        bundle.append(element);
    }
    return bundle;
}

void decodeCueText(benchmark::State& state)
{
    const QByteArray packet = orvane::encodeOSC(cueText());
    for (auto _ : state) {
        auto messages = orvane::decodeOSCPacket(packet);
        benchmark::DoNotOptimize(messages);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(decodeCueText);

void decodeBundleOfTen(benchmark::State& state)
{
    const QByteArray packet = bundleOfTen();
    for (auto _ : state) {
        auto messages = orvane::decodeOSCPacket(packet);
        benchmark::DoNotOptimize(messages);
    }
    state.SetItemsProcessed(state.iterations() * 10);
}
BENCHMARK(decodeBundleOfTen);

void encodeCueText(benchmark::State& state)
{
    const orvane::OSCMessage message = cueText();
    for (auto _ : state) {
        auto packet = orvane::encodeOSC(message);
        benchmark::DoNotOptimize(packet);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(encodeCueText);

void encodeEveryKind(benchmark::State& state)
{
    const orvane::OSCMessage message{
        "/orvane/bench",
        {42, 1.5f, std::string("Intro"), QByteArray(13, 'x'), true, orvane::OSCNull{}}};
    for (auto _ : state) {
        auto packet = orvane::encodeOSC(message);
        benchmark::DoNotOptimize(packet);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(encodeEveryKind);

} // namespace

BENCHMARK_MAIN();
