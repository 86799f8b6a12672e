#include "capture/TestPatternSource.h"

#include "capture/Frame.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <thread>

namespace orvane {

namespace {

constexpr std::array<std::uint32_t, 7> kBars = {0xffc0c0c0, 0xffc0c000, 0xff00c0c0, 0xff00c000,
                                                0xffc000c0, 0xffc00000, 0xff0000c0};

// Digits 0-9 as 3 x 5 cells, one row of three bits per entry, top row first.
constexpr std::array<std::array<std::uint8_t, 5>, 10> kDigits = {{
    {7, 5, 5, 5, 7}, {2, 6, 2, 2, 7}, {7, 1, 7, 4, 7}, {7, 1, 7, 1, 7}, {5, 5, 7, 1, 1},
    {7, 4, 7, 1, 7}, {7, 4, 7, 5, 7}, {7, 1, 1, 1, 1}, {7, 5, 7, 5, 7}, {7, 5, 7, 1, 7},
}};

void fillRect(Frame& frame, int x, int y, int w, int h, std::uint32_t colour)
{
    const int left = std::clamp(x, 0, frame.width);
    const int right = std::clamp(x + w, 0, frame.width);
    const int top = std::clamp(y, 0, frame.height);
    const int bottom = std::clamp(y + h, 0, frame.height);
    for (int row = top; row < bottom; ++row) {
        auto* line = reinterpret_cast<std::uint32_t*>(frame.pixels + row * frame.bytesPerLine);
        std::fill(line + left, line + right, colour);
    }
}

} // namespace

TestPatternSource::TestPatternSource(Clock& clock, int width, int height, double framesPerSecond,
                                     Pacing pacing)
    : clock_(clock)
    , width_(width)
    , height_(height)
    , frameDuration_(1.0 / framesPerSecond)
    , pacing_(pacing)
    , nextDue_(clock.now())
{
    barsRow_.resize(std::size_t(width) * 2);
    for (int x = 0; x < width * 2; ++x)
        barsRow_[std::size_t(x)] = kBars[std::size_t((x % width) * int(kBars.size()) / width)];
}

VideoSource::Wait TestPatternSource::waitForFrame(Seconds limit)
{
    captureThread_.check();
    Instant now = clock_.now();
    if (now < nextDue_) {
        if (pacing_ == Pacing::stepped)
            return Wait::nothingYet;
        const auto until = std::min(nextDue_, now + std::chrono::duration_cast<Instant::duration>(limit));
        std::this_thread::sleep_until(until);
        now = clock_.now();
        if (now < nextDue_)
            return Wait::nothingYet;
    }
    // A thread that woke more than a whole picture late skips the pictures it missed, as a
    // camera does, and counts them as lost.
    const auto period = std::chrono::duration_cast<Instant::duration>(Seconds(frameDuration_));
    const auto behind = (now - nextDue_) / period;
    if (behind > 0) {
        lost_ += int(behind);
        nextNumber_ += behind;
        nextDue_ += behind * period;
    }
    return Wait::frameReady;
}

std::optional<Instant> TestPatternSource::readFrame(Frame& frame)
{
    captureThread_.check();
    const Instant presentedAt = nextDue_;
    frame.number = nextNumber_;
    paint(frame, nextNumber_);
    ++nextNumber_;
    nextDue_ = presentedAt + std::chrono::duration_cast<Instant::duration>(Seconds(frameDuration_));
    return presentedAt;
}

void TestPatternSource::skipFrame()
{
    captureThread_.check();
    ++nextNumber_;
    nextDue_ += std::chrono::duration_cast<Instant::duration>(Seconds(frameDuration_));
}

int TestPatternSource::takeLostFrames()
{
    captureThread_.check();
    return std::exchange(lost_, 0);
}

void TestPatternSource::paint(Frame& frame, std::int64_t number) const
{
    const int w = frame.width;
    const int h = frame.height;
    const int barsHeight = h * 2 / 3;
    // The bars drift one screen width every 10 seconds at 30 frames per second.
    const int offset = int((number * w / 300) % w);
    for (int row = 0; row < barsHeight; ++row)
        std::memcpy(frame.pixels + row * frame.bytesPerLine, barsRow_.data() + offset,
                    std::size_t(w) * 4);
    // Below the bars a grey ramp, left dark to right light.
    for (int row = barsHeight; row < h; ++row) {
        auto* line = reinterpret_cast<std::uint32_t*>(frame.pixels + row * frame.bytesPerLine);
        for (int x = 0; x < w; ++x) {
            const std::uint32_t grey = std::uint32_t(16 + x * 200 / std::max(1, w - 1));
            line[x] = 0xff000000 | grey << 16 | grey << 8 | grey;
        }
    }
    // A white box that sweeps across the bars and back every 4 seconds.
    const int box = std::max(2, h / 8);
    const double phase = std::fmod(double(number) / 120.0, 1.0);
    const double sweep = phase < 0.5 ? phase * 2 : (1 - phase) * 2;
    fillRect(frame, int(sweep * (w - box)), barsHeight / 2 - box / 2, box, box, 0xffffffff);

    // The frame counter, black on white, in the ramp's middle.
    const int cell = std::max(1, h / 60);
    const std::string digits = std::to_string(number);
    const int textWidth = int(digits.size()) * 4 * cell - cell;
    const int left = (w - textWidth) / 2;
    const int top = barsHeight + (h - barsHeight - 5 * cell) / 2;
    fillRect(frame, left - cell, top - cell, textWidth + 2 * cell, 7 * cell, 0xffffffff);
    for (std::size_t i = 0; i < digits.size(); ++i) {
        const auto& glyph = kDigits[std::size_t(digits[i] - '0')];
        const int glyphLeft = left + int(i) * 4 * cell;
        for (int row = 0; row < 5; ++row)
            for (int column = 0; column < 3; ++column)
                if (glyph[std::size_t(row)] & (4 >> column))
                    fillRect(frame, glyphLeft + column * cell, top + row * cell, cell, cell,
                             0xff000000);
    }
}

} // namespace orvane
