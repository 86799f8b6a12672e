#include "outputs/JpegEncoder.h"

#include "capture/Frame.h"

#include <QLoggingCategory>

#include <turbojpeg.h>

extern "C" {
#include <libswscale/swscale.h>
}

#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#include <xmmintrin.h>
#endif

namespace orvane {

namespace {

Q_LOGGING_CATEGORY(logJpeg, "orvane.outputs.jpeg")

// Halves a BGRA picture in both directions, each pixel the mean of a 2 x 2 block: the common
// case of a 3840 x 2160 camera, several times faster than a general scaler.
void halve(const std::uint8_t* source, int sourceStride, int width, int height,
           std::uint8_t* target, int targetStride)
{
    for (int y = 0; y < height; ++y) {
        const std::uint8_t* top = source + std::ptrdiff_t(2 * y) * sourceStride;
        const std::uint8_t* bottom = top + sourceStride;
        std::uint8_t* out = target + std::ptrdiff_t(y) * targetStride;
        int x = 0;
#ifdef __SSE2__
        for (; x + 4 <= width; x += 4) {
            const auto* t = reinterpret_cast<const __m128i*>(top + 8 * x);
            const auto* b = reinterpret_cast<const __m128i*>(bottom + 8 * x);
            const __m128 left =
                _mm_castsi128_ps(_mm_avg_epu8(_mm_loadu_si128(t), _mm_loadu_si128(b)));
            const __m128 right =
                _mm_castsi128_ps(_mm_avg_epu8(_mm_loadu_si128(t + 1), _mm_loadu_si128(b + 1)));
            const __m128i even =
                _mm_castps_si128(_mm_shuffle_ps(left, right, _MM_SHUFFLE(2, 0, 2, 0)));
            const __m128i odd =
                _mm_castps_si128(_mm_shuffle_ps(left, right, _MM_SHUFFLE(3, 1, 3, 1)));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4 * x), _mm_avg_epu8(even, odd));
        }
#endif
        for (; x < width; ++x) {
            const std::uint8_t* t = top + std::ptrdiff_t(8) * x;
            const std::uint8_t* b = bottom + std::ptrdiff_t(8) * x;
            std::uint8_t* o = out + std::ptrdiff_t(4) * x;
            for (int c = 0; c < 4; ++c)
                o[c] = std::uint8_t((t[c] + t[4 + c] + b[c] + b[4 + c] + 2) / 4);
        }
    }
}

} // namespace

struct JpegEncoder::State {
    tjhandle compressor = nullptr;
    SwsContext* scaler = nullptr;
    int scaledFromWidth = 0;
    int scaledFromHeight = 0;
    std::vector<std::uint8_t> scaled; // a halved picture, BGRA
    std::vector<std::uint8_t> planes; // a picture scaled otherwise, as Y, Cb and Cr planes
    std::vector<unsigned char> output;
    bool loggedFailure = false;
};

template <class Compress>
QByteArray JpegEncoder::compress(State& s, Compress run, int width, int height)
{
    const unsigned long capacity = tjBufSize(width, height, TJSAMP_420);
    if (s.output.size() < capacity)
        s.output.resize(capacity);
    unsigned char* out = s.output.data();
    unsigned long size = capacity;
    if (run(&out, &size) != 0) {
        if (!s.loggedFailure)
            qCWarning(logJpeg, "outputs: JPEG encoding of a %dx%d picture failed: %s", width,
                      height, tjGetErrorStr2(s.compressor));
        s.loggedFailure = true;
        return {};
    }
    return QByteArray(reinterpret_cast<const char*>(out), qsizetype(size));
}

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
        s.scaled.resize(std::size_t(width) * 4 * std::size_t(height));
        if (frame.width == 2 * width && frame.height == 2 * height) {
            halve(frame.pixels, frame.bytesPerLine, width, height, s.scaled.data(), width * 4);
        } else {
            // Any other size: scaled straight into the JPEG's own planes (full-range 4:2:0),
            // which spares the encoder its colour conversion.
            if (!s.scaler || s.scaledFromWidth != frame.width ||
                s.scaledFromHeight != frame.height) {
                sws_freeContext(s.scaler);
                s.scaler =
                    sws_getContext(frame.width, frame.height, AV_PIX_FMT_BGRA, width, height,
                                   AV_PIX_FMT_YUVJ420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
                s.scaledFromWidth = frame.width;
                s.scaledFromHeight = frame.height;
            }
            if (!s.scaler)
                return {};
            const int chromaWidth = (width + 1) / 2;
            const int chromaHeight = (height + 1) / 2;
            s.planes.resize(std::size_t(width) * std::size_t(height) +
                            2 * std::size_t(chromaWidth) * std::size_t(chromaHeight));
            std::uint8_t* planes[3] = {s.planes.data(), s.planes.data() + width * height,
                                       s.planes.data() + width * height +
                                           chromaWidth * chromaHeight};
            int strides[3] = {width, chromaWidth, chromaWidth};
            const std::uint8_t* source[1] = {frame.pixels};
            const int sourceStride[1] = {frame.bytesPerLine};
            sws_scale(s.scaler, source, sourceStride, 0, frame.height, planes, strides);
            return compress(
                s,
                [&](unsigned char** out, unsigned long* size) {
                    const unsigned char* constPlanes[3] = {planes[0], planes[1], planes[2]};
                    return tjCompressFromYUVPlanes(s.compressor, constPlanes, width, strides,
                                                   height, TJSAMP_420, out, size, kQuality,
                                                   TJFLAG_NOREALLOC);
                },
                width, height);
        }
        pixels = s.scaled.data();
        stride = width * 4;
    }

    return compress(
        s,
        [&](unsigned char** out, unsigned long* size) {
            return tjCompress2(s.compressor, pixels, width, stride, height, TJPF_BGRX, out, size,
                               TJSAMP_420, kQuality, TJFLAG_NOREALLOC);
        },
        width, height);
}

} // namespace orvane
