#pragma once

#include "base/Clock.h"

#include <vector>

namespace orvane {

// A run of sound samples: 32-bit float, interleaved, `channels` per sample frame.
struct AudioBuffer {
    std::vector<float> samples;
    int channels = 2;
    int sampleRate = 48000;
    // When the first sample was heard, on the monotonic clock.
    Instant presentedAt{};

    int frameCount() const { return channels > 0 ? int(samples.size()) / channels : 0; }
};

// Where a microphone's sound comes from: a PulseAudio/PipeWire source or a generated tone.
// Every source delivers 48 kHz. Capture thread only.
class AudioSource {
public:
    enum class Read {
        buffer,  // `into` holds new samples
        nothing, // nothing waiting now
        lost,    // the device went away or failed
    };

    virtual ~AudioSource() = default;

    // Fills `into` with the samples waiting now, without blocking.
    virtual Read read(AudioBuffer& into) = 0;
};

} // namespace orvane
