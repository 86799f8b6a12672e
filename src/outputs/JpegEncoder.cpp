#include "outputs/JpegEncoder.h"

#include "capture/Frame.h"

#include <QLoggingCategory>

#include <turbojpeg.h>

extern "C" {
#include <libswscale/swscale.h>
}

#include <vector>

namespace orvane {

namespace {
Q_LOGGING_CATEGORY(logJpeg, "orvane.outputs.jpeg")
} // namespace

struct JpegEncoder::State {
    tjhandle compressor = nullptr;
    SwsContext* scaler = nullptr;
    int scaledFromWidth = 0;
    int scaledFromHeight = 0;
    std::vector<std::uint8_t> scaled; // the scaled picture, BGRA
    std::vector<unsigned char> output;
    bool loggedFailure = false;
};

JpegEncoder::JpegEncoder()
    : state_(std::make_unique<State>())
{
    state_->compressor = tjInitCompress();
}

JpegEncoder::~JpegEncoder()
{
    sws_freeContext(state_->scaler);
    if (state_->compressor)
        tjDestroy(state_->compressor);
}

QByteArray JpegEncoder::encode(const Frame& frame)
{
    State& s = *state_;
    if (!s.compressor || !frame.pixels || frame.width <= 0 || frame.height <= 0)
        return {};

    const std::uint8_t* pixels = frame.pixels;
    int width = frame.width;
    int height = frame.height;
    int stride = frame.bytesPerLine;
    if (frame.width > kMaxWidth) {
        width = kMaxWidth;
        height = std::max(
            1, int((std::int64_t(frame.height) * kMaxWidth + frame.width / 2) / frame.width));
        if (!s.scaler || s.scaledFromWidth != frame.width || s.scaledFromHeight != frame.height) {
            sws_freeContext(s.scaler);
            s.scaler = sws_getContext(frame.width, frame.height, AV_PIX_FMT_BGRA, width, height,
                                      AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr, nullptr);
            s.scaledFromWidth = frame.width;
            s.scaledFromHeight = frame.height;
            s.scaled.resize(std::size_t(width) * 4 * std::size_t(height));
        }
        if (!s.scaler)
            return {};
        const std::uint8_t* source[1] = {frame.pixels};
        const int sourceStride[1] = {frame.bytesPerLine};
        std::uint8_t* target[1] = {s.scaled.data()};
        const int targetStride[1] = {width * 4};
        sws_scale(s.scaler, source, sourceStride, 0, frame.height, target, targetStride);
        pixels = s.scaled.data();
        stride = width * 4;
    }

    const unsigned long capacity = tjBufSize(width, height, TJSAMP_420);
    if (s.output.size() < capacity)
        s.output.resize(capacity);
    unsigned char* out = s.output.data();
    unsigned long size = capacity;
    const int failed = tjCompress2(s.compressor, pixels, width, stride, height, TJPF_BGRX, &out,
                                   &size, TJSAMP_420, kQuality, TJFLAG_NOREALLOC);
    if (failed) {
        if (!s.loggedFailure)
            qCWarning(logJpeg, "outputs: JPEG encoding of a %dx%d frame failed: %s", width, height,
                      tjGetErrorStr2(s.compressor));
        s.loggedFailure = true;
        return {};
    }
    return QByteArray(reinterpret_cast<const char*>(out), qsizetype(size));
}

} // namespace orvane
