#include "capture/MovieWriter.h"

#include "capture/CaptureLog.h"
#include "capture/FinishMovie.h"
#include "capture/Frame.h"

#include <QFile>
#include <QFileInfo>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace orvane {

namespace {

constexpr int kAudioRate = 48000;
constexpr int kAudioChannels = 2;
constexpr int kAudioBitRate = 256000;
// ProRes 422 Proxy at a fixed quantiser: close to the proxy data rate, and about seven times
// cheaper than the encoder's own rate control, which cannot keep up on two cores.
constexpr int kProResQuantiser = 8;

QString describe(int averror)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(averror, text, sizeof text);
    return QString::fromLocal8Bit(text);
}

// The muxer cuts a fragment at the first key frame this long after the last cut: a little
// under a second, so that a key frame every second always cuts one and an intra-only codec
// still makes one fragment a second.
constexpr int kMinimumFragmentMicroseconds = 980'000;

// Key frames once a second, where the codec has others.
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
    // The pipeline's colours, as a USB camera's: BT.601 matrix, video range.
    context->color_range = AVCOL_RANGE_MPEG;
    context->colorspace = AVCOL_SPC_SMPTE170M;
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

} // namespace

// Makes the movie's fragments durable away from the encoder: the writer asks, and this
// thread runs the sync step, so a slow disk never holds up encoding. Requests that come
// while a sync runs are folded into the next one. Made and used on the recorder's thread.
class FragmentSyncer {
public:
    FragmentSyncer(int fd, MovieWriter::SyncStep step)
        : fd_(fd)
        , step_(std::move(step))
        , thread_([this] { run(); })
    {
    }
    ~FragmentSyncer()
    {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }

    void request()
    {
        {
            std::lock_guard lock(mutex_);
            pending_ = true;
        }
        wake_.notify_one();
    }

private:
    void run()
    {
        for (;;) {
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [this] { return pending_ || stopping_; });
                if (!pending_)
                    return;
                pending_ = false;
            }
            step_(fd_);
        }
    }

    const int fd_;
    const MovieWriter::SyncStep step_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool pending_ = false;
    bool stopping_ = false;
    std::thread thread_;
};

struct MovieWriter::State {
    QString path;
    AVFormatContext* format = nullptr;
    CodecContext video;
    CodecContext audio;
    AVStream* videoStream = nullptr;
    AVStream* audioStream = nullptr;
    SwsContext* converter = nullptr; // to ProRes's layout, or from a frame of another size
    AVFramePtr picture{av_frame_alloc()}; // what the converter writes
    AVFramePtr wrapped{av_frame_alloc()}; // a frame's own planes, lent to the encoder
    AVFramePtr sound{av_frame_alloc()};
    PacketPtr packet{av_packet_alloc()};
    std::int64_t samplesWritten = 0;
    int pendingSamples = 0; // samples waiting in `sound` for a whole encoder frame
    bool headerWritten = false;
    int syncFile = -1; // the movie, for making each fragment durable
    SyncStep syncStep;
    std::unique_ptr<FragmentSyncer> syncer;

    ~State()
    {
        syncer.reset();
        if (syncFile >= 0)
            ::close(syncFile);
        sws_freeContext(converter);
        if (format) {
            avio_closep(&format->pb);
            avformat_free_context(format);
        }
    }

    // Writes every packet the encoder has ready. The muxer starts a fragment at the first
    // video key frame a second after the last one, which sends the previous fragment to the
    // file; it is flushed out of our buffers at once and synced to the disk on the syncer's
    // thread, so a power cut loses about the last two seconds at most.
    int drain(AVCodecContext* encoder, AVStream* stream)
    {
        for (;;) {
            int result = avcodec_receive_packet(encoder, packet.get());
            if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
                return 0;
            if (result < 0)
                return result;
            // Some encoders leave a picture's duration unset. The movie's last picture would
            // then last no time at all and players, which stop at the end of the edit list,
            // would never show it.
            if (stream == videoStream && packet->duration <= 0)
                packet->duration = 1;
            av_packet_rescale_ts(packet.get(), encoder->time_base, stream->time_base);
            packet->stream_index = stream->index;
            // The muxer keeps the fragment being made in memory: the file grows only when a
            // fragment is cut.
            const std::int64_t before = avio_tell(format->pb);
            result = av_write_frame(format, packet.get());
            av_packet_unref(packet.get());
            if (result < 0)
                return result;
            if (avio_tell(format->pb) != before) {
                avio_flush(format->pb);
                if (format->pb->error < 0)
                    return format->pb->error;
                if (syncer)
                    syncer->request();
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

MovieWriter::MovieWriter(std::unique_ptr<State> state)
    : state_(std::move(state))
{
}

MovieWriter::~MovieWriter() = default;

void MovieWriter::syncData(int fd)
{
    ::fdatasync(fd);
}

std::unique_ptr<MovieWriter> MovieWriter::create(const QString& path, const Video& video,
                                                 bool includesAudio, QString& error, SyncStep sync)
{
    static const bool quiet = [] {
        av_log_set_level(AV_LOG_ERROR); // the encoders' own chatter is not for the journal
        return true;
    }();
    (void)quiet;
    auto state = std::make_unique<State>();
    state->path = path;
    state->syncStep = sync ? std::move(sync) : SyncStep(&MovieWriter::syncData);
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

    result = avio_open(&state->format->pb, file.constData(), AVIO_FLAG_WRITE);
    if (result < 0) {
        error = describe(result);
        return nullptr;
    }
    AVDictionary* options = nullptr;
    av_dict_set(&options, "movflags", "frag_keyframe+empty_moov+default_base_moof", 0);
    // An intra-only codec (ProRes) has a key frame at every picture: without this it would
    // cut, flush and sync thirty fragments a second.
    av_dict_set_int(&options, "min_frag_duration", kMinimumFragmentMicroseconds, 0);
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
    avio_flush(state->format->pb);
    syncFileToDisk(path, true);
    state->syncFile = ::open(file.constData(), O_RDONLY | O_CLOEXEC);
    if (state->syncFile >= 0)
        state->syncer = std::make_unique<FragmentSyncer>(state->syncFile, state->syncStep);
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

bool MovieWriter::writeVideo(std::shared_ptr<const Frame> frame, std::int64_t position)
{
    State& s = *state_;
    AVFrame* picture = s.picture.get();
    if (frame->width == s.video->width && frame->height == s.video->height &&
        s.video->pix_fmt == AV_PIX_FMT_YUV420P) {
        // The encoder takes the frame's own planes (it copies them into its own pictures);
        // the buffer goes back to the camera's pool when the encoder lets go of it.
        picture = s.wrapped.get();
        av_frame_unref(picture);
        auto* holder = new std::shared_ptr<const Frame>(std::move(frame));
        const Frame& lent = **holder;
        picture->buf[0] = av_buffer_create(
            lent.data[0], lent.bytes,
            [](void* opaque, std::uint8_t*) {
                delete static_cast<std::shared_ptr<const Frame>*>(opaque);
            },
            holder, AV_BUFFER_FLAG_READONLY);
        if (!picture->buf[0]) {
            delete holder;
            return fail(AVERROR(ENOMEM));
        }
        for (int plane = 0; plane < 3; ++plane) {
            picture->data[plane] = lent.data[plane];
            picture->linesize[plane] = lent.stride[plane];
        }
        picture->format = AV_PIX_FMT_YUV420P;
        picture->width = lent.width;
        picture->height = lent.height;
    } else {
        // ProRes wants 4:2:2 at 10 bits, and a camera that changed its mode mid-recording
        // sends another size, which a movie cannot change: converted once, here.
        int result = av_frame_make_writable(picture);
        if (result < 0)
            return fail(result);
        s.converter = sws_getCachedContext(s.converter, frame->width, frame->height,
                                           AV_PIX_FMT_YUV420P, s.video->width, s.video->height,
                                           s.video->pix_fmt, SWS_BILINEAR, nullptr, nullptr,
                                           nullptr);
        if (!s.converter)
            return fail(AVERROR(EINVAL));
        sws_scale(s.converter, frame->data, frame->stride, 0, frame->height, picture->data,
                  picture->linesize);
        frame.reset();
    }
    picture->pts = position;
    int result = avcodec_send_frame(s.video.get(), picture);
    av_frame_unref(s.wrapped.get());
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
    const int closed = avio_closep(&s.format->pb);
    if (result >= 0)
        result = closed;
    // The last fragment is on the disk before the recording is reported stopped.
    s.syncer.reset();
    if (s.syncFile >= 0)
        s.syncStep(s.syncFile);
    return result < 0 ? fail(result) : true;
}

} // namespace orvane
