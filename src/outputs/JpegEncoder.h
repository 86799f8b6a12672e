#pragma once

#include <QByteArray>

#include <memory>

namespace orvane {

struct Frame;

// Turns a frame into the web viewer's JPEG: frames wider than 1920 pixels are first scaled
// uniformly to 1920 wide, then encoded at quality 75 (sRGB, 4:2:0). Keeps its encoder and
// scaler between frames, so only the first frame of a size allocates. One thread at a time
// (the web-encode thread).
class JpegEncoder {
public:
    static constexpr int kMaxWidth = 1920;
    static constexpr int kQuality = 75;

    JpegEncoder();
    ~JpegEncoder();
    JpegEncoder(const JpegEncoder&) = delete;
    JpegEncoder& operator=(const JpegEncoder&) = delete;

    // The JPEG bytes of `frame`; empty when the frame is empty or the encoder fails.
    QByteArray encode(const Frame& frame);

private:
    struct State;
    template <class Compress>
    static QByteArray compress(State& state, Compress run, int width, int height);
    std::unique_ptr<State> state_;
};

} // namespace orvane
