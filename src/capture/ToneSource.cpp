#include "capture/ToneSource.h"

#include <QString>

#include <cmath>
#include <numbers>

namespace orvane {

namespace {
constexpr int kRate = 48000;
constexpr int kChannels = 2;
// Sound comes in 10 ms pieces, as a sound server hands out a microphone's.
constexpr int kChunk = kRate / 100;
} // namespace

ToneSource::ToneSource(Clock& clock, double frequency, float amplitude)
    : clock_(clock), frequency_(frequency), amplitude_(amplitude), start_(clock.now())
{
}

AudioSource::Read ToneSource::read(AudioBuffer& into)
{
    captureThread_.check();
    const auto due = std::int64_t(secondsBetween(start_, clock_.now()) * kRate);
    if (due - produced_ < kChunk)
        return Read::nothing;
    const int count = kChunk;
    into.channels = kChannels;
    into.sampleRate = kRate;
    into.presentedAt = addSeconds(start_, double(produced_) / kRate);
    into.samples.resize(std::size_t(count) * kChannels);
    for (int i = 0; i < count; ++i) {
        const double t = double(produced_ + i) / kRate;
        const auto value = float(amplitude_ * std::sin(2 * std::numbers::pi * frequency_ * t));
        for (int c = 0; c < kChannels; ++c)
            into.samples[std::size_t(i * kChannels + c)] = value;
    }
    produced_ += count;
    return Read::buffer;
}

} // namespace orvane
