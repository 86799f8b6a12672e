#include "capture/MovieWriter.h"

#include "base/Checks.h"
#include "capture/CaptureLog.h"
#include "capture/Frame.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
#include <libavutil/channel_layout.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace orvane {

namespace {

constexpr int kAudioRate = 48000;
constexpr int kAudioChannels = 2;
constexpr int kAudioBitRate = 256000;
// ProRes 422 Proxy at a fixed quantiser: close to the proxy data rate, and about seven times
// cheaper than the encoder's own rate control, which cannot keep up on two cores.
constexpr int kProResQuantiser = 8;

// Makes what was written to `path` so far survive a power cut; with `folder`, its name too.
void syncToDisk(const QByteArray& path, bool folder)
{
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    ::fsync(fd);
    ::close(fd);
    if (folder)
        syncToDisk(QFile::encodeName(QFileInfo(QFile::decodeName(path)).absolutePath()), false);
}

QString describe(int averror)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(averror, text, sizeof text);
    return QString::fromLocal8Bit(text);
}

// Key frames, and so fragments, once a second.
int keyFrameInterval(AVRational rate)
{
    return std::max(1, int(std::lround(av_q2d(rate))));
}

struct CodecContextDeleter {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameDeleter {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketDeleter {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
using CodecContext = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using AVFramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;

// Opens the video encoder for `video` with the options that keep it real-time on a small
// machine; nullptr when the encoder is missing or refuses the size.
CodecContext openVideoEncoder(const MovieWriter::Video& video, AVRational rate)
{
    const AVCodec* codec = avcodec_find_encoder_by_name(MovieWriter::encoderName(video.codec));
    if (!codec)
        return nullptr;
    CodecContext context(avcodec_alloc_context3(codec));
    context->width = video.width;
    context->height = video.height;
    context->time_base = av_inv_q(rate);
    context->framerate = rate;
    context->gop_size = keyFrameInterval(rate);
    // Pictures leave the encoder in the order they came: less delay before a fragment
    // reaches the disk, and time stamps that start at zero.
    context->max_b_frames = 0;
    context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    context->color_range = AVCOL_RANGE_MPEG;
    context->colorspace = AVCOL_SPC_BT709;
    context->color_primaries = AVCOL_PRI_BT709;
    context->color_trc = AVCOL_TRC_BT709;
    AVDictionary* options = nullptr;
    switch (video.codec) {
    case MovieCodec::h264:
        context->pix_fmt = AV_PIX_FMT_YUV420P;
        av_dict_set(&options, "preset", "veryfast", 0);
        break;
    case MovieCodec::hevc:
        context->pix_fmt = AV_PIX_FMT_YUV420P;
        context->codec_tag = MKTAG('h', 'v', 'c', '1');
        av_dict_set(&options, "preset", "ultrafast", 0);
        av_dict_set(&options, "x265-params", "log-level=error", 0);
        break;
    case MovieCodec::proRes422Proxy:
        context->pix_fmt = AV_PIX_FMT_YUV422P10LE;
        context->flags |= AV_CODEC_FLAG_QSCALE;
        context->global_quality = kProResQuantiser * FF_QP2LAMBDA;
        av_dict_set(&options, "profile", "proxy", 0);
        av_dict_set(&options, "vendor", "apl0", 0);
        break;
    }
    const int opened = avcodec_open2(context.get(), codec, &options);
    av_dict_free(&options);
    if (opened < 0) {
        qCWarning(lcCapture, "recorder: %s refused %dx%d: %s", codec->name, video.width,
                  video.height, qPrintable(describe(opened)));
        return nullptr;
    }
    return context;
}

CodecContext openAudioEncoder()
{
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!codec)
        return nullptr;
    CodecContext context(avcodec_alloc_context3(codec));
    context->sample_rate = kAudioRate;
    av_channel_layout_default(&context->ch_layout, kAudioChannels);
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context->bit_rate = kAudioBitRate;
    context->time_base = {1, kAudioRate};
    context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (avcodec_open2(context.get(), codec, nullptr) < 0)
        return nullptr;
    return context;
}

// Copies the fragmented movie at `from` into an ordinary one at `to`, packet for packet.
int remux(const QByteArray& from, const QByteArray& to)
{
    AVFormatContext* input = nullptr;
    int result = avformat_open_input(&input, from.constData(), nullptr, nullptr);
    if (result < 0)
        return result;
    AVFormatContext* output = nullptr;
    result = avformat_find_stream_info(input, nullptr);
    if (result >= 0)
        result = avformat_alloc_output_context2(&output, nullptr, "mov", to.constData());
    for (unsigned i = 0; result >= 0 && i < input->nb_streams; ++i) {
        AVStream* stream = avformat_new_stream(output, nullptr);
        result = avcodec_parameters_copy(stream->codecpar, input->streams[i]->codecpar);
        stream->time_base = input->streams[i]->time_base;
    }
    if (result >= 0)
        result = avio_open(&output->pb, to.constData(), AVIO_FLAG_WRITE);
    if (result >= 0)
        result = avformat_write_header(output, nullptr);
    const bool headerWritten = result >= 0;
    PacketPtr packet(av_packet_alloc());
    while (result >= 0) {
        const int read = av_read_frame(input, packet.get());
        if (read == AVERROR_EOF)
            break;
        if (read < 0) {
            result = read;
            break;
        }
        // A last picture that lasts no time would fall outside the movie's edit list, and
        // players would never show it: give it one frame's time.
        const AVStream* from = input->streams[packet->stream_index];
        if (packet->duration <= 0 && from->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
            from->r_frame_rate.num > 0 && from->r_frame_rate.den > 0)
            packet->duration = av_rescale_q(1, av_inv_q(from->r_frame_rate), from->time_base);
        av_packet_rescale_ts(packet.get(), from->time_base,
                             output->streams[packet->stream_index]->time_base);
        packet->pos = -1;
        result = av_write_frame(output, packet.get());
        av_packet_unref(packet.get());
    }
    if (headerWritten) {
        const int trailer = av_write_trailer(output);
        if (result >= 0)
            result = trailer;
    }
    if (output) {
        avio_closep(&output->pb);
        avformat_free_context(output);
    }
    avformat_close_input(&input);
    return result;
}

} // namespace

struct MovieWriter::State {
    QString path;
    AVFormatContext* format = nullptr;
    CodecContext video;
    CodecContext audio;
    AVStream* videoStream = nullptr;
    AVStream* audioStream = nullptr;
    SwsContext* scaler = nullptr;
    AVFramePtr picture{av_frame_alloc()};
    AVFramePtr sound{av_frame_alloc()};
    PacketPtr packet{av_packet_alloc()};
    std::int64_t samplesWritten = 0;
    int pendingSamples = 0; // samples waiting in `sound` for a whole encoder frame
    bool headerWritten = false;
    int syncFile = -1; // the movie, for making each fragment durable

    ~State()
    {
        if (syncFile >= 0)
            ::close(syncFile);
        sws_freeContext(scaler);
        if (format) {
            avio_closep(&format->pb);
            avformat_free_context(format);
        }
    }

    // Writes every packet the encoder has ready. A key frame of the video starts a fragment,
    // which sends the previous one to the file; it is flushed out of our buffers at once and
    // onto the disk, so that a power cut loses at most the fragment being made.
    int drain(AVCodecContext* encoder, AVStream* stream)
    {
        for (;;) {
            int result = avcodec_receive_packet(encoder, packet.get());
            if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
                return 0;
            if (result < 0)
                return result;
            const bool keyVideo = stream == videoStream && (packet->flags & AV_PKT_FLAG_KEY);
            // Some encoders leave a picture's duration unset. The movie's last picture would
            // then last no time at all and players, which stop at the end of the edit list,
            // would never show it.
            if (stream == videoStream && packet->duration <= 0)
                packet->duration = 1;
            av_packet_rescale_ts(packet.get(), encoder->time_base, stream->time_base);
            packet->stream_index = stream->index;
            result = av_write_frame(format, packet.get());
            av_packet_unref(packet.get());
            if (result < 0)
                return result;
            if (keyVideo) {
                avio_flush(format->pb);
                if (syncFile >= 0)
                    ::fdatasync(syncFile);
            }
        }
    }
};

const char* MovieWriter::encoderName(MovieCodec codec)
{
    switch (codec) {
    case MovieCodec::hevc:
        return "libx265";
    case MovieCodec::h264:
        return "libx264";
    case MovieCodec::proRes422Proxy:
        return "prores_ks";
    }
    return "";
}

MovieWriter::MovieWriter(std::unique_ptr<State> state) : state_(std::move(state)) {}

MovieWriter::~MovieWriter() = default;

std::unique_ptr<MovieWriter> MovieWriter::create(const QString& path, const Video& video,
                                                 bool includesAudio, QString& error)
{
    static const bool quiet = [] {
        av_log_set_level(AV_LOG_ERROR); // the encoders' own chatter is not for the journal
        return true;
    }();
    (void)quiet;
    auto state = std::make_unique<State>();
    state->path = path;
    const QByteArray file = QFile::encodeName(path);
    int result = avformat_alloc_output_context2(&state->format, nullptr, "mov", file.constData());
    if (result < 0) {
        error = describe(result);
        return nullptr;
    }
    const AVRational rate = av_d2q(1.0 / video.frameDuration, 1000000);
    state->video = openVideoEncoder(video, rate);
    if (!state->video) {
        error = QStringLiteral("The video format isn't supported.");
        return nullptr;
    }
    state->videoStream = avformat_new_stream(state->format, nullptr);
    avcodec_parameters_from_context(state->videoStream->codecpar, state->video.get());
    state->videoStream->time_base = state->video->time_base;
    state->videoStream->avg_frame_rate = rate;

    if (includesAudio) {
        state->audio = openAudioEncoder();
        if (state->audio) {
            state->audioStream = avformat_new_stream(state->format, nullptr);
            avcodec_parameters_from_context(state->audioStream->codecpar, state->audio.get());
            state->audioStream->time_base = state->audio->time_base;
            state->sound->format = state->audio->sample_fmt;
            state->sound->nb_samples = state->audio->frame_size;
            av_channel_layout_copy(&state->sound->ch_layout, &state->audio->ch_layout);
            state->sound->sample_rate = kAudioRate;
            av_frame_get_buffer(state->sound.get(), 0);
        } else {
            qCWarning(lcCapture, "recorder: the AAC encoder is missing; recording without sound");
        }
    }

    state->picture->format = state->video->pix_fmt;
    state->picture->width = video.width;
    state->picture->height = video.height;
    av_frame_get_buffer(state->picture.get(), 0);
    state->scaler = sws_getContext(video.width, video.height, AV_PIX_FMT_BGRA, video.width,
                                   video.height, state->video->pix_fmt, SWS_POINT, nullptr,
                                   nullptr, nullptr);
    if (!state->scaler) {
        error = QStringLiteral("The video format isn't supported.");
        return nullptr;
    }
    const int* coefficients = sws_getCoefficients(SWS_CS_ITU709);
    sws_setColorspaceDetails(state->scaler, coefficients, 1, coefficients, 0, 0, 1 << 16,
                             1 << 16);

    result = avio_open(&state->format->pb, file.constData(), AVIO_FLAG_WRITE);
    if (result < 0) {
        error = describe(result);
        return nullptr;
    }
    AVDictionary* options = nullptr;
    av_dict_set(&options, "movflags", "frag_keyframe+empty_moov+default_base_moof", 0);
    result = avformat_write_header(state->format, &options);
    av_dict_free(&options);
    if (result < 0) {
        const QString described = describe(result);
        error = described.isEmpty() ? QStringLiteral("The movie couldn't be started.") : described;
        state.reset();
        QFile::remove(path);
        return nullptr;
    }
    state->headerWritten = true;
    syncToDisk(file, true);
    state->syncFile = ::open(file.constData(), O_RDONLY | O_CLOEXEC);
    return std::unique_ptr<MovieWriter>(new MovieWriter(std::move(state)));
}

bool MovieWriter::hasAudio() const
{
    return state_->audio != nullptr;
}

bool MovieWriter::fail(int averror)
{
    error_ = describe(averror);
    return false;
}

bool MovieWriter::writeVideo(const Frame& frame, std::int64_t position)
{
    State& s = *state_;
    if (!holds(frame.width == s.video->width && frame.height == s.video->height,
               "a movie's frames keep their size"))
        return false;
    int result = av_frame_make_writable(s.picture.get());
    if (result < 0)
        return fail(result);
    const std::uint8_t* source[1] = {frame.pixels};
    const int sourceStride[1] = {frame.bytesPerLine};
    sws_scale(s.scaler, source, sourceStride, 0, frame.height, s.picture->data,
              s.picture->linesize);
    s.picture->pts = position;
    result = avcodec_send_frame(s.video.get(), s.picture.get());
    if (result < 0)
        return fail(result);
    result = s.drain(s.video.get(), s.videoStream);
    return result < 0 ? fail(result) : true;
}

bool MovieWriter::writeAudio(const float* samples, int frameCount)
{
    State& s = *state_;
    if (!s.audio)
        return true;
    const int frameSize = s.audio->frame_size;
    while (frameCount > 0) {
        if (s.pendingSamples == 0) {
            const int result = av_frame_make_writable(s.sound.get());
            if (result < 0)
                return fail(result);
        }
        const int take = std::min(frameCount, frameSize - s.pendingSamples);
        auto* left = reinterpret_cast<float*>(s.sound->data[0]) + s.pendingSamples;
        auto* right = reinterpret_cast<float*>(s.sound->data[1]) + s.pendingSamples;
        for (int i = 0; i < take; ++i) {
            left[i] = samples[2 * i];
            right[i] = samples[2 * i + 1];
        }
        samples += 2 * take;
        frameCount -= take;
        s.pendingSamples += take;
        if (s.pendingSamples < frameSize)
            break;
        s.sound->pts = s.samplesWritten;
        s.samplesWritten += frameSize;
        s.pendingSamples = 0;
        int result = avcodec_send_frame(s.audio.get(), s.sound.get());
        if (result >= 0)
            result = s.drain(s.audio.get(), s.audioStream);
        if (result < 0)
            return fail(result);
    }
    return true;
}

bool MovieWriter::finish()
{
    State& s = *state_;
    int result = avcodec_send_frame(s.video.get(), nullptr);
    if (result >= 0)
        result = s.drain(s.video.get(), s.videoStream);
    if (result >= 0 && s.audio) {
        result = avcodec_send_frame(s.audio.get(), nullptr);
        if (result >= 0)
            result = s.drain(s.audio.get(), s.audioStream);
    }
    if (result >= 0)
        result = av_write_trailer(s.format);
    avio_closep(&s.format->pb);
    if (result < 0)
        return fail(result);

    // The fragmented file becomes an ordinary movie under the same name. Until the rename the
    // fragmented one stays whole, so a crash here still leaves a movie that plays.
    const QFileInfo info(s.path);
    const QString ordinary = info.dir().filePath(QLatin1Char('.') + info.fileName() +
                                                 QStringLiteral(".part"));
    result = remux(QFile::encodeName(s.path), QFile::encodeName(ordinary));
    if (result < 0) {
        QFile::remove(ordinary);
        qCWarning(lcCapture, "recorder: could not rewrite %s as an ordinary movie: %s; it stays "
                             "fragmented", qPrintable(s.path), qPrintable(describe(result)));
        return true;
    }
    syncToDisk(QFile::encodeName(ordinary), false);
    if (std::rename(QFile::encodeName(ordinary).constData(),
                    QFile::encodeName(s.path).constData()) != 0) {
        QFile::remove(ordinary);
        qCWarning(lcCapture, "recorder: could not replace %s: %s", qPrintable(s.path),
                  std::strerror(errno));
    }
    syncToDisk(QFile::encodeName(s.path), true);
    return true;
}

} // namespace orvane
