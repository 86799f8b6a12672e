#include "outputs/JpegEncoder.h"

#include "capture/Frame.h"

#include <QLoggingCategory>

#include <turbojpeg.h>

extern "C" {
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace orvane {

namespace {

Q_LOGGING_CATEGORY(logJpeg, "orvane.outputs.jpeg")

// One plane from video range to the full range a JPEG holds (the matrix, BT.601, is the same):
// luma 16...235 to 0...255, chroma 16...240 to 0...255 around 128. With `halve`, each output
// sample is first the mean of a 2 x 2 block of the source (a 3840 x 2160 camera).
void expandPlane(const std::uint8_t* source, int sourceStride, int width, int height, bool luma,
                 bool halve, std::uint8_t* target, int targetStride)
{
    // out = (in - offset) x gain / 4096, rounded; gains 255/219 and 255/224.
    const int offset = luma ? 16 : 128;
    const int gain = luma ? 4769 : 4663;
    const int base = luma ? 0 : 128;
    for (int y = 0; y < height; ++y) {
        const std::uint8_t* top = source + std::ptrdiff_t(halve ? 2 * y : y) * sourceStride;
        const std::uint8_t* bottom = top + sourceStride;
        std::uint8_t* out = target + std::ptrdiff_t(y) * targetStride;
        int x = 0;
#ifdef __SSE2__
        const __m128i zero = _mm_setzero_si128();
        const __m128i lowMask = _mm_set1_epi16(0x00ff);
        const __m128i scale = _mm_set1_epi16(short(gain * 4));
        const __m128i shift = _mm_set1_epi16(short(offset));
        const __m128i add = _mm_set1_epi16(short(base));
        auto expand = [&](__m128i wide) {
            // ((in - offset) x 8) x (gain x 4) / 65536 = (in - offset) x gain / 2048: the
            // result in halves, then rounded.
            const __m128i centred = _mm_slli_epi16(_mm_sub_epi16(wide, shift), 3);
            const __m128i scaled = _mm_mulhi_epi16(centred, scale);
            return _mm_add_epi16(_mm_srai_epi16(_mm_add_epi16(scaled, _mm_set1_epi16(1)), 1), add);
        };
        for (; x + 16 <= width; x += 16) {
            __m128i row;
            if (halve) {
                const auto* t = reinterpret_cast<const __m128i*>(top + 2 * x);
                const auto* b = reinterpret_cast<const __m128i*>(bottom + 2 * x);
                const __m128i left = _mm_avg_epu8(_mm_loadu_si128(t), _mm_loadu_si128(b));
                const __m128i right = _mm_avg_epu8(_mm_loadu_si128(t + 1), _mm_loadu_si128(b + 1));
                // Mean of each horizontal pair: even bytes and odd bytes averaged.
                const __m128i even = _mm_packus_epi16(_mm_and_si128(left, lowMask),
                                                      _mm_and_si128(right, lowMask));
                const __m128i odd = _mm_packus_epi16(_mm_srli_epi16(left, 8),
                                                     _mm_srli_epi16(right, 8));
                row = _mm_avg_epu8(even, odd);
            } else {
                row = _mm_loadu_si128(reinterpret_cast<const __m128i*>(top + x));
            }
            const __m128i low = expand(_mm_unpacklo_epi8(row, zero));
            const __m128i high = expand(_mm_unpackhi_epi8(row, zero));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), _mm_packus_epi16(low, high));
        }
#endif
        for (; x < width; ++x) {
            const int in = halve ? (top[2 * x] + top[2 * x + 1] + bottom[2 * x] +
                                    bottom[2 * x + 1] + 2) / 4
                                 : top[x];
            out[x] = std::uint8_t(std::clamp(base + ((in - offset) * gain + 2048) / 4096, 0, 255));
        }
    }
}

} // namespace

struct JpegEncoder::State {
    tjhandle compressor = nullptr;
    SwsContext* scaler = nullptr;
    std::vector<std::uint8_t> planes; // the JPEG's own Y, Cb and Cr
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
    if (!s.compressor || !frame.data[0] || frame.width <= 0 || frame.height <= 0)
        return {};

    int width = frame.width;
    int height = frame.height;
    if (frame.width > kMaxWidth) {
        width = kMaxWidth;
        height = std::max(
            1, int((std::int64_t(frame.height) * kMaxWidth + frame.width / 2) / frame.width));
    }
    const int chromaWidth = (width + 1) / 2;
    const int chromaHeight = (height + 1) / 2;
    s.planes.resize(std::size_t(width) * std::size_t(height) +
                    2 * std::size_t(chromaWidth) * std::size_t(chromaHeight));
    std::uint8_t* planes[3] = {s.planes.data(), s.planes.data() + width * height,
                               s.planes.data() + width * height + chromaWidth * chromaHeight};
    int strides[3] = {width, chromaWidth, chromaWidth};
    const bool halve = frame.width == 2 * width && frame.height == 2 * height;
    if (width == frame.width || halve) {
        // The frame's planes, halved when twice the width, brought to the JPEG's full range:
        // no colour conversion and no chroma subsampling are left to the encoder.
        for (int plane = 0; plane < 3; ++plane)
            expandPlane(frame.data[plane], frame.stride[plane], plane == 0 ? width : chromaWidth,
                        plane == 0 ? height : chromaHeight, plane == 0, halve, planes[plane],
                        strides[plane]);
    } else {
        // Any other size: scaled, and brought to full range, in one pass.
        s.scaler = sws_getCachedContext(s.scaler, frame.width, frame.height, AV_PIX_FMT_YUV420P,
                                        width, height, AV_PIX_FMT_YUVJ420P, SWS_BILINEAR, nullptr,
                                        nullptr, nullptr);
        if (!s.scaler)
            return {};
        sws_scale(s.scaler, frame.data, frame.stride, 0, frame.height, planes, strides);
    }

    const unsigned long capacity = tjBufSize(width, height, TJSAMP_420);
    if (s.output.size() < capacity)
        s.output.resize(capacity);
    unsigned char* out = s.output.data();
    unsigned long size = capacity;
    const unsigned char* constPlanes[3] = {planes[0], planes[1], planes[2]};
    if (tjCompressFromYUVPlanes(s.compressor, constPlanes, width, strides, height, TJSAMP_420,
                                &out, &size, kQuality, TJFLAG_NOREALLOC) != 0) {
        if (!s.loggedFailure)
            qCWarning(logJpeg, "outputs: JPEG encoding of a %dx%d picture failed: %s", width,
                      height, tjGetErrorStr2(s.compressor));
        s.loggedFailure = true;
        return {};
    }
    return QByteArray(reinterpret_cast<const char*>(out), qsizetype(size));
}

} // namespace orvane
