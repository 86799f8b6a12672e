#pragma once

#include <QByteArray>

#include <memory>

namespace orvane {

struct Frame;

// Turns a frame into the web viewer's JPEG straight from its YUV planes (4:2:0, quality 75):
// only the range changes (video to full), and frames wider than 1920 pixels are first scaled
// uniformly to 1920 wide (halved when twice as wide). Keeps its encoder and scaler between
// frames, so only the first frame of a size allocates. One thread at a time (the web-encode
// thread).
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
    std::unique_ptr<State> state_;
};

} // namespace orvane
