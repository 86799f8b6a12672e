#pragma once

#include "base/Checks.h"
#include "capture/CaptureSource.h"
#include "capture/VideoSource.h"

#include <QSize>

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace orvane {

// The built-in camera that needs no hardware: colour bars that drift sideways, a box that
// moves across them and a large frame counter, so a recording shows motion and lost frames.
// Drawn straight in the pipeline's YUV layout. Each picture depends only on its number. Capture thread only.
class TestPatternSource final : public VideoSource {
public:
    // realTime: waitForFrame() sleeps until the next picture is due (the capture thread);
    // stepped: it never sleeps and a test moves the clock.
    enum class Pacing { realTime, stepped };

    static inline const QString kID = QStringLiteral("orvane:test-pattern");
    static CaptureSource source() { return {kID, QStringLiteral("Test Pattern")}; }
    // A camera identifier may also ask for the test pattern at a size of its own, as
    // "orvane:test-pattern@1280x720" (even sizes from 16x16 to 7680x4320), so the settings can
    // give the main camera and each extra camera a different picture with no hardware.
    static bool isTestPattern(const QString& cameraID);
    // The size such an identifier asks for; none for the plain kID and for anything else.
    static std::optional<QSize> sizeIn(const QString& cameraID);

    TestPatternSource(Clock& clock, int width, int height, double framesPerSecond,
                      Pacing pacing = Pacing::realTime);

    int width() const override { return width_; }
    int height() const override { return height_; }
    double frameDuration() const override { return frameDuration_; }
    Wait waitForFrame(Seconds limit) override;
    std::optional<Instant> readFrame(Frame& frame) override;
    void skipFrame() override;
    int takeLostFrames() override;

    // Draws picture number `number` into `frame`.
    void paint(const Frame& frame, std::int64_t number) const;

private:
    Clock& clock_;
    ThreadCheck captureThread_; // the thread that made it
    int width_;
    int height_;
    double frameDuration_;
    Pacing pacing_;
    Instant nextDue_;
    std::int64_t nextNumber_ = 0;
    int lost_ = 0;
    // Two widths of bars in Y, Cb and Cr (chroma at half the width, twice), so any offset is
    // one copy.
    std::array<std::vector<std::uint8_t>, 3> barsRows_;
    std::vector<std::uint8_t> rampRow_;
};

} // namespace orvane
