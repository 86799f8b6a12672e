#include "capture/TestPatternSource.h"

#include "capture/Frame.h"

#include <QStringList>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <thread>

namespace orvane {

namespace {

constexpr std::array<QRgb, 7> kBars = {0xffc0c0c0, 0xffc0c000, 0xff00c0c0, 0xff00c000,
                                        0xffc000c0, 0xffc00000, 0xff0000c0};
constexpr YuvColour kWhite{235, 128, 128};
constexpr YuvColour kBlack{16, 128, 128};

// Digits 0-9 as 3 x 5 cells, one row of three bits per entry, top row first.
constexpr std::array<std::array<std::uint8_t, 5>, 10> kDigits = {{
    {7, 5, 5, 5, 7}, {2, 6, 2, 2, 7}, {7, 1, 7, 4, 7}, {7, 1, 7, 1, 7}, {5, 5, 7, 1, 1},
    {7, 4, 7, 1, 7}, {7, 4, 7, 5, 7}, {7, 1, 1, 1, 1}, {7, 5, 7, 5, 7}, {7, 5, 7, 1, 7},
}};

// Fills a rectangle of luma pixels, and the chroma samples it touches, with one colour.
void fillRect(const Frame& frame, int x, int y, int w, int h, YuvColour colour)
{
    const int left = std::clamp(x, 0, frame.width);
    const int right = std::clamp(x + w, 0, frame.width);
    const int top = std::clamp(y, 0, frame.height);
    const int bottom = std::clamp(y + h, 0, frame.height);
    if (left >= right || top >= bottom)
        return;
    for (int row = top; row < bottom; ++row)
        std::memset(frame.data[0] + std::ptrdiff_t(row) * frame.stride[0] + left, colour.y,
                    std::size_t(right - left));
    for (int row = top / 2; row < (bottom + 1) / 2; ++row) {
        std::memset(frame.data[1] + std::ptrdiff_t(row) * frame.stride[1] + left / 2, colour.cb,
                    std::size_t((right + 1) / 2 - left / 2));
        std::memset(frame.data[2] + std::ptrdiff_t(row) * frame.stride[2] + left / 2, colour.cr,
                    std::size_t((right + 1) / 2 - left / 2));
    }
}

} // namespace

bool TestPatternSource::isTestPattern(const QString& cameraID)
{
    return cameraID == kID || sizeIn(cameraID).has_value();
}

std::optional<QSize> TestPatternSource::sizeIn(const QString& cameraID)
{
    const QString prefix = kID + QLatin1Char('@');
    if (!cameraID.startsWith(prefix))
        return std::nullopt;
    const QStringList dimensions = cameraID.mid(prefix.size()).split(QLatin1Char('x'));
    if (dimensions.size() != 2)
        return std::nullopt;
    bool widthOK = false;
    bool heightOK = false;
    const QSize size(dimensions[0].toInt(&widthOK), dimensions[1].toInt(&heightOK));
    if (!widthOK || !heightOK || size.width() < 16 || size.height() < 16 || size.width() > 7680 ||
        size.height() > 4320 || size.width() % 2 != 0 || size.height() % 2 != 0)
        return std::nullopt;
    return size;
}

TestPatternSource::TestPatternSource(Clock& clock, int width, int height, double framesPerSecond,
                                     Pacing pacing)
    : clock_(clock)
    , width_(width)
    , height_(height)
    , frameDuration_(1.0 / framesPerSecond)
    , pacing_(pacing)
    , nextDue_(clock.now())
{
    for (auto& row : barsRows_)
        row.resize(std::size_t(width) * 2);
    for (int x = 0; x < width * 2; ++x) {
        const YuvColour bar =
            yuv::fromRgb(kBars[std::size_t((x % width) * int(kBars.size()) / width)]);
        barsRows_[0][std::size_t(x)] = bar.y;
        // Chroma at half the width: the first `width` samples hold two widths.
        if (x % 2 == 0) {
            barsRows_[1][std::size_t(x / 2)] = bar.cb;
            barsRows_[2][std::size_t(x / 2)] = bar.cr;
        }
    }
    rampRow_.resize(std::size_t(width));
    for (int x = 0; x < width; ++x) {
        const int grey = 16 + x * 200 / std::max(1, width - 1);
        rampRow_[std::size_t(x)] = yuv::fromRgb(qRgb(grey, grey, grey)).y;
    }
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

void TestPatternSource::paint(const Frame& frame, std::int64_t number) const
{
    const int w = frame.width;
    const int h = frame.height;
    const int barsHeight = h * 2 / 3;
    // The bars drift one screen width every 10 seconds at 30 frames per second.
    const int offset = int((number * w / 300) % w);
    const std::size_t chromaWidth = std::size_t(frame.width + 1) / 2;
    for (int row = 0; row < barsHeight; ++row)
        std::memcpy(frame.data[0] + std::ptrdiff_t(row) * frame.stride[0],
                    barsRows_[0].data() + offset, std::size_t(w));
    for (int row = 0; row < (barsHeight + 1) / 2; ++row)
        for (int plane = 1; plane < 3; ++plane)
            std::memcpy(frame.data[plane] + std::ptrdiff_t(row) * frame.stride[plane],
                        barsRows_[std::size_t(plane)].data() + offset / 2, chromaWidth);
    // Below the bars a grey ramp, left dark to right light.
    for (int row = barsHeight; row < h; ++row)
        std::memcpy(frame.data[0] + std::ptrdiff_t(row) * frame.stride[0], rampRow_.data(),
                    std::size_t(w));
    for (int row = (barsHeight + 1) / 2; row < (h + 1) / 2; ++row) {
        std::memset(frame.data[1] + std::ptrdiff_t(row) * frame.stride[1], 128, chromaWidth);
        std::memset(frame.data[2] + std::ptrdiff_t(row) * frame.stride[2], 128, chromaWidth);
    }
    // A white box that sweeps across the bars and back every 4 seconds.
    const int box = std::max(2, h / 8);
    const double phase = std::fmod(double(number) / 120.0, 1.0);
    const double sweep = phase < 0.5 ? phase * 2 : (1 - phase) * 2;
    fillRect(frame, int(sweep * (w - box)), barsHeight / 2 - box / 2, box, box, kWhite);

    // The frame counter, black on white, in the ramp's middle.
    const int cell = std::max(1, h / 60);
    const std::string digits = std::to_string(number);
    const int textWidth = int(digits.size()) * 4 * cell - cell;
    const int left = (w - textWidth) / 2;
    const int top = barsHeight + (h - barsHeight - 5 * cell) / 2;
    fillRect(frame, left - cell, top - cell, textWidth + 2 * cell, 7 * cell, kWhite);
    for (std::size_t i = 0; i < digits.size(); ++i) {
        const auto& glyph = kDigits[std::size_t(digits[i] - '0')];
        const int glyphLeft = left + int(i) * 4 * cell;
        for (int row = 0; row < 5; ++row)
            for (int column = 0; column < 3; ++column)
                if (glyph[std::size_t(row)] & (4 >> column))
                    fillRect(frame, glyphLeft + column * cell, top + row * cell, cell, cell,
                             kBlack);
    }
}

} // namespace orvane
