#pragma once

#include "base/Checks.h"
#include "capture/AudioSource.h"

#include <QString>

#include <cstdint>

namespace orvane {

// A steady sine tone, stereo at 48 kHz in 10 ms pieces, produced as time passes on its
// clock: the sound of a microphone for machines without one, taking the same road through
// the engine and the recorder. Capture thread only.
class ToneSource final : public AudioSource {
public:
    static inline const QString kID = QStringLiteral("orvane:test-tone");

    explicit ToneSource(Clock& clock, double frequency = 1000.0, float amplitude = 0.5f);

    Read read(AudioBuffer& into) override;

private:
    Clock& clock_;
    ThreadCheck captureThread_; // the thread that made it
    double frequency_;
    float amplitude_;
    Instant start_;
    std::int64_t produced_ = 0; // sample frames handed out so far
};

} // namespace orvane
