#include "capture/CameraDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace orvane {

namespace {

// Whether `data` holds a JPEG picture from its start marker to its end marker. A UVC camera
// pads a picture with zeros; a picture cut short has no end marker.
bool wholeJpeg(const std::uint8_t* data, int size)
{
    while (size > 0 && data[size - 1] == 0)
        --size;
    return size >= 4 && data[0] == 0xff && data[1] == 0xd8 && data[size - 2] == 0xff &&
           data[size - 1] == 0xd9;
}

} // namespace

std::unique_ptr<CameraDecoder> CameraDecoder::open(const AVCodecParameters& format)
{
    const AVCodec* codec = avcodec_find_decoder(format.codec_id);
    if (!codec)
        return nullptr;
    auto decoder = std::unique_ptr<CameraDecoder>(new CameraDecoder);
    decoder->context_ = avcodec_alloc_context3(codec);
    decoder->picture_ = av_frame_alloc();
    decoder->packet_ = av_packet_alloc();
    if (!decoder->context_ || !decoder->picture_ || !decoder->packet_ ||
        avcodec_parameters_to_context(decoder->context_, &format) < 0)
        return nullptr;
    // Damage is an error, not something to hide.
    decoder->context_->err_recognition |= AV_EF_EXPLODE | AV_EF_BUFFER;
    if (avcodec_open2(decoder->context_, codec, nullptr) < 0)
        return nullptr;
    decoder->jpeg_ = format.codec_id == AV_CODEC_ID_MJPEG;
    return decoder;
}

CameraDecoder::~CameraDecoder()
{
    av_frame_free(&picture_);
    av_packet_free(&packet_);
    avcodec_free_context(&context_);
}

int CameraDecoder::width() const
{
    return context_->width;
}

int CameraDecoder::height() const
{
    return context_->height;
}

bool CameraDecoder::decode(const std::uint8_t* data, int size, bool corrupt)
{
    if (corrupt || !data || size <= 0 || (jpeg_ && !wholeJpeg(data, size)))
        return false;
    packet_->data = const_cast<std::uint8_t*>(data);
    packet_->size = size;
    av_frame_unref(picture_);
    int result = avcodec_send_packet(context_, packet_);
    packet_->data = nullptr;
    packet_->size = 0;
    if (result >= 0)
        result = avcodec_receive_frame(context_, picture_);
    if (result < 0) {
        // A decoder stuck on a bad picture starts clean with the next.
        avcodec_flush_buffers(context_);
        return false;
    }
    return picture_->decode_error_flags == 0 && !(picture_->flags & AV_FRAME_FLAG_CORRUPT);
}

} // namespace orvane
