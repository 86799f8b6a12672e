// Decoding one 64 KiB read of framed Eos cue-text packets, the hot path of a busy console link.
#include "osc/OSCStreamDecoder.h"

#include <benchmark/benchmark.h>

using namespace orvane;

namespace {

// A "/eos/out/active/cue/text" packet as a console sends it while a fade runs.
QByteArray cueTextPacket(int percent)
{
    QByteArray packet("/eos/out/active/cue/text");
    packet.append(QByteArray(4 - packet.size() % 4, '\0'));
    packet.append(",s\0\0", 4);
    QByteArray text = "1/27.5 Blackout to warm wash 4.0 " + QByteArray::number(percent) + "%";
    text.append(QByteArray(4 - text.size() % 4, '\0'));
    packet.append(text);
    return packet;
}

QByteArray framedRead(OSCFraming framing, qsizetype size, int* packets)
{
    QByteArray wire;
    *packets = 0;
    for (int percent = 0; wire.size() < size; percent = (percent + 1) % 101, ++*packets)
        wire += frameOSCPacket(framing, cueTextPacket(percent));
    return wire;
}

void decodeRead(benchmark::State& state, OSCFraming framing)
{
    int packets = 0;
    const QByteArray wire = framedRead(framing, 65'536, &packets);
    OSCStreamDecoder decoder(framing);
    for (auto _ : state) {
        auto decoded = decoder.decode(wire);
        benchmark::DoNotOptimize(decoded);
    }
    state.SetBytesProcessed(state.iterations() * wire.size());
    state.SetItemsProcessed(state.iterations() * packets);
}

void decodeSlip(benchmark::State& state)
{
    decodeRead(state, OSCFraming::slip);
}
void decodeLengthPrefixed(benchmark::State& state)
{
    decodeRead(state, OSCFraming::lengthPrefixed);
}

} // namespace

BENCHMARK(decodeSlip);
BENCHMARK(decodeLengthPrefixed);
BENCHMARK_MAIN();
