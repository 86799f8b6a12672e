#include "capture/CaptureDevices.h"

#include "base/Checks.h"
#include "capture/AudioSource.h"
#include "capture/CameraDecoder.h"
#include "capture/CaptureLog.h"
#include "capture/Frame.h"
#include "capture/NewestBuffer.h"
#include "capture/TestPatternSource.h"
#include "capture/VideoSource.h"

#include <QCollator>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavdevice/avdevice.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/time.h>
#include <libswscale/swscale.h>
}

#include <cerrno>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

namespace orvane {

namespace {

void registerDevices()
{
    static const bool registered = [] {
        avdevice_register_all();
        return true;
    }();
    (void)registered;
}

int ioctlRetrying(int fd, unsigned long request, void* argument)
{
    int result;
    do
        result = ::ioctl(fd, request, argument);
    while (result < 0 && errno == EINTR);
    return result;
}

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

struct PixelFormatName {
    quint32 fourcc;
    const char* name;
    double bytesPerPixel;
};
constexpr PixelFormatName kPixelFormats[] = {
    {V4L2_PIX_FMT_YUYV, "yuyv422", 2},   {V4L2_PIX_FMT_UYVY, "uyvy422", 2},
    {V4L2_PIX_FMT_NV12, "nv12", 1.5},    {V4L2_PIX_FMT_YUV420, "yuv420p", 1.5},
    {V4L2_PIX_FMT_RGB24, "rgb24", 3},    {V4L2_PIX_FMT_BGR24, "bgr24", 3},
    {V4L2_PIX_FMT_MJPEG, "mjpeg", 0},    {V4L2_PIX_FMT_JPEG, "mjpeg", 0},
    {V4L2_PIX_FMT_H264, "h264", 0},
};

const PixelFormatName* pixelFormat(quint32 fourcc)
{
    for (const auto& format : kPixelFormats)
        if (format.fourcc == fourcc)
            return &format;
    return nullptr;
}

std::vector<FrameRateRange> frameRates(int fd, quint32 fourcc, int width, int height)
{
    std::vector<FrameRateRange> rates;
    v4l2_frmivalenum interval{};
    interval.pixel_format = fourcc;
    interval.width = quint32(width);
    interval.height = quint32(height);
    for (interval.index = 0; ioctlRetrying(fd, VIDIOC_ENUM_FRAMEINTERVALS, &interval) == 0;
         ++interval.index) {
        if (interval.type == V4L2_FRMIVAL_TYPE_DISCRETE) {
            if (interval.discrete.numerator == 0)
                continue;
            const double fps = double(interval.discrete.denominator) / interval.discrete.numerator;
            rates.push_back({fps, fps});
        } else {
            const auto& s = interval.stepwise;
            if (s.min.numerator == 0 || s.max.numerator == 0)
                continue;
            rates.push_back({double(s.max.denominator) / s.max.numerator,
                             double(s.min.denominator) / s.min.numerator});
            break; // a stepwise range is the only entry
        }
    }
    return rates;
}

// The picture sizes a camera offers for one pixel format: each one it lists, or for a range
// its largest and the common sizes inside it.
std::vector<QSize> frameSizes(int fd, quint32 fourcc)
{
    std::vector<QSize> sizes;
    v4l2_frmsizeenum size{};
    size.pixel_format = fourcc;
    for (size.index = 0; ioctlRetrying(fd, VIDIOC_ENUM_FRAMESIZES, &size) == 0; ++size.index) {
        if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            sizes.emplace_back(int(size.discrete.width), int(size.discrete.height));
            continue;
        }
        const auto& s = size.stepwise;
        const auto inside = [&s](int width, int height) {
            return quint32(width) >= s.min_width && quint32(width) <= s.max_width &&
                   quint32(height) >= s.min_height && quint32(height) <= s.max_height &&
                   (s.step_width == 0 || (quint32(width) - s.min_width) % s.step_width == 0) &&
                   (s.step_height == 0 || (quint32(height) - s.min_height) % s.step_height == 0);
        };
        sizes.emplace_back(int(s.max_width), int(s.max_height));
        for (const QSize common : {QSize(1920, 1080), QSize(1280, 720), QSize(640, 480)})
            if (inside(common.width(), common.height()) && common != sizes.front())
                sizes.push_back(common);
        break; // a range is the only entry
    }
    return sizes;
}

// The identifier of a node that survives a restart and another USB port where it can: its
// name under /dev/v4l/by-id, else the node's own path.
QString stableID(const QString& nodePath)
{
    const QDir byID(QStringLiteral("/dev/v4l/by-id"));
    for (const auto& link : byID.entryInfoList(QDir::System | QDir::Files | QDir::NoDotAndDotDot))
        if (link.canonicalFilePath() == QFileInfo(nodePath).canonicalFilePath())
            return link.absoluteFilePath();
    return nodePath;
}

// The descriptor libavdevice opened for the camera at `path`, found among the process's open
// files, so the capture thread can wait on it with poll(); -1 when it cannot be told.
int openDescriptorOf(const QString& path)
{
    const QString target = QFileInfo(path).canonicalFilePath();
    int found = -1;
    const QDir descriptors(QStringLiteral("/proc/self/fd"));
    for (const QString& name : descriptors.entryList(QDir::System | QDir::NoDotAndDotDot)) {
        const QString link = QFile::symLinkTarget(descriptors.filePath(name));
        bool number = false;
        const int fd = name.toInt(&number);
        if (number && link == target)
            found = std::max(found, fd); // the newest of them
    }
    return found;
}

// A Video4Linux2 camera read through libavdevice: the newest picture the driver holds is
// taken and the older ones are lost (see NewestBuffer), the camera's descriptor is waited on
// with poll(), each picture is decoded when compressed (a damaged one is dropped and
// counted) and converted to the pipeline's I420 once, straight into the frame's planes.
class V4L2Camera final : public VideoSource {
public:
    ~V4L2Camera() override
    {
        sws_freeContext(scaler_);
        av_packet_free(&packet_);
        av_packet_free(&newer_);
        decoder_.reset();
        avformat_close_input(&input_);
    }

    static std::unique_ptr<V4L2Camera> open(const QString& path, Clock& clock,
                                            std::optional<QSize> wanted)
    {
        const auto modes = CaptureDevices::queryModes(path);
        if (!modes)
            return nullptr;
        const CameraMode chosen =
            CameraMode::choose(modes->offered, wanted).value_or(modes->active);
        auto camera = std::unique_ptr<V4L2Camera>(new V4L2Camera(clock));
        int result = camera->openMode(path, chosen);
        if (result == AVERROR(ENOSPC) && !chosen.compressed) {
            // The bus is full: ask for compressed pictures of the same size.
            for (const auto& mode : modes->offered)
                if (mode.compressed && mode.width == chosen.width && mode.height == chosen.height) {
                    camera = std::unique_ptr<V4L2Camera>(new V4L2Camera(clock));
                    result = camera->openMode(path, mode);
                    break;
                }
        }
        if (result < 0) {
            char text[AV_ERROR_MAX_STRING_SIZE] = {};
            av_strerror(result, text, sizeof text);
            qCWarning(lcCapture, "capture: could not open camera %s: %s", qPrintable(path), text);
            return nullptr;
        }
        qCInfo(lcCapture, "capture: camera %s opened at %dx%d %s", qPrintable(path),
               camera->width(), camera->height(), qPrintable(chosen.pixelFormat));
        return camera;
    }

    int width() const override { return width_; }
    int height() const override { return height_; }
    double frameDuration() const override { return frameDuration_; }

    Wait waitForFrame(Seconds limit) override
    {
        captureThread_.check();
        const Instant until = clock_.now() + std::chrono::duration_cast<Instant::duration>(limit);
        for (;;) {
            switch (takeNewest()) {
            case Taken::lost:
                return Wait::lost;
            case Taken::picture:
                if (decodeTaken())
                    return Wait::frameReady;
                continue; // damaged: dropped and counted; look for the next
            case Taken::nothing:
                break;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                until - clock_.now());
            if (left.count() <= 0)
                return Wait::nothingYet;
            if (fd_ >= 0) {
                pollfd ready{fd_, POLLIN, 0};
                if (::poll(&ready, 1, int(left.count())) < 0 && errno != EINTR)
                    return Wait::lost;
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        }
    }

    std::optional<Instant> readFrame(Frame& frame) override
    {
        captureThread_.check();
        frame.number = nextNumber_++;
        const AVFrame& picture = decoder_->picture();
        const auto format = AVPixelFormat(picture.format);
        if (format == AV_PIX_FMT_YUV420P && picture.width == frame.width &&
            picture.height == frame.height) {
            // Already the pipeline's layout: one copy into the frame.
            av_image_copy(frame.data, frame.stride, const_cast<const std::uint8_t**>(picture.data),
                          picture.linesize, format, frame.width, frame.height);
            return presentedAt_;
        }
        // YUYV, NV12 or a decoded MJPEG picture (4:2:2 at full range): one conversion, range
        // included, straight into the frame's planes.
        SwsContext* const before = scaler_;
        scaler_ = sws_getCachedContext(scaler_, picture.width, picture.height, format, frame.width,
                                       frame.height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr,
                                       nullptr, nullptr);
        const int fullRange = picture.color_range == AVCOL_RANGE_JPEG ||
                              format == AV_PIX_FMT_YUVJ422P || format == AV_PIX_FMT_YUVJ420P;
        if (scaler_ && (scaler_ != before || fullRange != scalerFullRange_)) {
            const int* matrix = sws_getCoefficients(SWS_CS_ITU601);
            sws_setColorspaceDetails(scaler_, matrix, fullRange, matrix, 0, 0, 1 << 16, 1 << 16);
            scalerFullRange_ = fullRange;
        }
        if (scaler_) {
            sws_scale(scaler_, picture.data, picture.linesize, 0, picture.height, frame.data,
                      frame.stride);
        }
        return presentedAt_;
    }

    void skipFrame() override {}

    int takeLostFrames() override { return std::exchange(lost_, 0); }

private:
    enum class Taken { picture, nothing, lost };

    explicit V4L2Camera(Clock& clock) : clock_(clock) {}

    // Reads every picture the driver holds and keeps the newest in `packet_`; each older one
    // goes straight back to the driver.
    Taken takeNewest()
    {
        stamps_.clear();
        bool any = false;
        for (;;) {
            const int result = av_read_frame(input_, newer_);
            if (result == AVERROR(EAGAIN))
                break;
            if (result < 0)
                return any ? Taken::picture : Taken::lost;
            av_packet_unref(packet_);
            std::swap(packet_, newer_);
            stamps_.push_back(packet_->pts != AV_NOPTS_VALUE ? packet_->pts : 0);
            any = true;
        }
        if (!any)
            return Taken::nothing;
        const auto choice = NewestBuffer::choose(stamps_, previousStamp_, frameDuration_);
        lost_ += choice.lost;
        if (packet_->pts != AV_NOPTS_VALUE)
            previousStamp_ = packet_->pts;
        return Taken::picture;
    }

    // Decodes the picture in `packet_`; whether it was whole.
    bool decodeTaken()
    {
        presentedAt_.reset();
        if (packet_->pts != AV_NOPTS_VALUE) {
            // Kernel time stamps come converted to the wall clock, in microseconds.
            const double age = double(av_gettime() - packet_->pts) / 1e6;
            presentedAt_ = addSeconds(clock_.now(), -age);
        }
        const bool whole = decoder_->decode(packet_->data, packet_->size,
                                            (packet_->flags & AV_PKT_FLAG_CORRUPT) != 0);
        av_packet_unref(packet_);
        if (whole && decoder_->picture().width == width_ &&
            decoder_->picture().height == height_) {
            damagedInARow_ = 0;
            return true;
        }
        ++lost_;
        if (++damagedInARow_ == 1 || damagedInARow_ % 100 == 0)
            qCWarning(lcCapture, "capture: dropped a damaged picture from the camera (%d in a row)",
                      damagedInARow_);
        return false;
    }

    int openMode(const QString& path, const CameraMode& mode)
    {
        registerDevices();
        AVDictionary* options = nullptr;
        av_dict_set(&options, "video_size",
                    QStringLiteral("%1x%2").arg(mode.width).arg(mode.height).toUtf8(), 0);
        av_dict_set(&options, "input_format", mode.pixelFormat.toUtf8(), 0);
        av_dict_set(&options, "timestamps", "mono2abs", 0);
        if (const auto rate = CameraMode::fastest(mode.rates))
            av_dict_set(&options, "framerate", QByteArray::number(rate->maximum), 0);
        input_ = avformat_alloc_context();
        input_->flags |= AVFMT_FLAG_NONBLOCK;
        int result = avformat_open_input(&input_, QFile::encodeName(path).constData(),
                                         av_find_input_format("video4linux2"), &options);
        av_dict_free(&options);
        if (result < 0)
            return result;
        if (input_->nb_streams < 1)
            return AVERROR_STREAM_NOT_FOUND;
        const AVStream* stream = input_->streams[0];
        decoder_ = CameraDecoder::open(*stream->codecpar);
        if (!decoder_)
            return AVERROR_DECODER_NOT_FOUND;
        width_ = stream->codecpar->width;
        height_ = stream->codecpar->height;
        const AVRational rate = stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate
                                                                : stream->r_frame_rate;
        frameDuration_ = rate.num > 0 ? av_q2d(av_inv_q(rate)) : 1.0 / 30;
        packet_ = av_packet_alloc();
        newer_ = av_packet_alloc();
        stamps_.reserve(64);
        fd_ = openDescriptorOf(path);
        return 0;
    }

    Clock& clock_;
    ThreadCheck captureThread_; // opened on the capture thread
    AVFormatContext* input_ = nullptr;
    std::unique_ptr<CameraDecoder> decoder_;
    AVPacket* packet_ = nullptr;
    AVPacket* newer_ = nullptr;
    SwsContext* scaler_ = nullptr;
    int scalerFullRange_ = -1;
    int fd_ = -1;
    int width_ = 0;
    int height_ = 0;
    double frameDuration_ = 1.0 / 30;
    std::int64_t nextNumber_ = 0;
    std::vector<std::int64_t> stamps_;
    std::optional<std::int64_t> previousStamp_;
    std::optional<Instant> presentedAt_;
    int lost_ = 0;
    int damagedInARow_ = 0;
};

// A PulseAudio (or PipeWire) source read through libavdevice, without blocking: 48 kHz
// stereo, 16-bit samples turned into floats.
class PulseMicrophone final : public AudioSource {
public:
    ~PulseMicrophone() override
    {
        av_packet_free(&packet_);
        avformat_close_input(&input_);
    }

    static std::unique_ptr<PulseMicrophone> open(const QString& id, Clock& clock)
    {
        registerDevices();
        const AVInputFormat* pulse = av_find_input_format("pulse");
        if (!pulse)
            return nullptr;
        auto microphone = std::unique_ptr<PulseMicrophone>(new PulseMicrophone(clock));
        AVDictionary* options = nullptr;
        av_dict_set(&options, "sample_rate", "48000", 0);
        av_dict_set(&options, "channels", "2", 0);
        av_dict_set(&options, "fragment_size", "1920", 0); // 10 ms
        microphone->input_ = avformat_alloc_context();
        microphone->input_->flags |= AVFMT_FLAG_NONBLOCK;
        const int result = avformat_open_input(&microphone->input_, id.toUtf8().constData(),
                                               pulse, &options);
        av_dict_free(&options);
        if (result < 0)
            return nullptr;
        microphone->packet_ = av_packet_alloc();
        return microphone;
    }

    Read read(AudioBuffer& into) override
    {
        captureThread_.check();
        const int result = av_read_frame(input_, packet_);
        if (result == AVERROR(EAGAIN))
            return Read::nothing;
        if (result < 0)
            return Read::lost;
        const int samples = packet_->size / 2;
        into.channels = 2;
        into.sampleRate = 48000;
        into.samples.resize(std::size_t(samples));
        const auto* pcm = reinterpret_cast<const std::int16_t*>(packet_->data);
        for (int i = 0; i < samples; ++i)
            into.samples[std::size_t(i)] = float(pcm[i]) / 32768.0f;
        const double age = packet_->pts != AV_NOPTS_VALUE
                               ? double(av_gettime() - packet_->pts) / 1e6
                               : 0.0;
        into.presentedAt = addSeconds(clock_.now(), -std::clamp(age, 0.0, 1.0));
        av_packet_unref(packet_);
        return Read::buffer;
    }

private:
    explicit PulseMicrophone(Clock& clock) : clock_(clock) {}

    Clock& clock_;
    ThreadCheck captureThread_; // opened on the capture thread
    AVFormatContext* input_ = nullptr;
    AVPacket* packet_ = nullptr;
};

std::vector<CaptureSource> listMicrophones()
{
    registerDevices();
    std::vector<CaptureSource> found;
    const AVInputFormat* pulse = av_find_input_format("pulse");
    AVDeviceInfoList* list = nullptr;
    if (!pulse || avdevice_list_input_sources(pulse, nullptr, nullptr, &list) < 0) {
        avdevice_free_list_devices(&list);
        return found;
    }
    for (int i = 0; i < list->nb_devices; ++i) {
        const AVDeviceInfo* device = list->devices[i];
        const QString id = QString::fromUtf8(device->device_name);
        if (id.endsWith(QStringLiteral(".monitor"))) // what a sound card plays, not a microphone
            continue;
        found.push_back({id, QString::fromUtf8(device->device_description)});
    }
    avdevice_free_list_devices(&list);
    return found;
}

} // namespace

CaptureDevices::CaptureDevices(QString deviceFolder, QObject* parent)
    : QObject(parent), deviceFolder_(std::move(deviceFolder))
{
    refresh();
    watch();
    connect(&watcher_, &QFileSystemWatcher::directoryChanged, this, [this] {
        refresh();
        watch(); // a sound folder that appeared is watched too
    });
}

void CaptureDevices::watch()
{
    for (const QString& folder : {deviceFolder_, deviceFolder_ + QStringLiteral("/snd")})
        if (QFileInfo(folder).isDir() && !watcher_.directories().contains(folder))
            watcher_.addPath(folder);
}

bool CaptureDevices::capturesVideo(quint32 capabilities, quint32 deviceCapabilities)
{
    const quint32 caps =
        (capabilities & V4L2_CAP_DEVICE_CAPS) ? deviceCapabilities : capabilities;
    return (caps & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE)) &&
           (caps & V4L2_CAP_STREAMING);
}

std::optional<CaptureDevices::NodeModes> CaptureDevices::queryModes(const QString& path)
{
    FileDescriptor fd(::open(QFile::encodeName(path).constData(), O_RDWR | O_NONBLOCK));
    if (fd.get() < 0)
        return std::nullopt;
    v4l2_format current{};
    current.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (ioctlRetrying(fd.get(), VIDIOC_G_FMT, &current) < 0)
        return std::nullopt;
    NodeModes modes;
    bool activeKnown = false;
    v4l2_fmtdesc description{};
    description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (description.index = 0; ioctlRetrying(fd.get(), VIDIOC_ENUM_FMT, &description) == 0;
         ++description.index) {
        const PixelFormatName* name = pixelFormat(description.pixelformat);
        if (!name)
            continue;
        CameraMode mode;
        mode.pixelFormat = QString::fromLatin1(name->name);
        mode.compressed = (description.flags & V4L2_FMT_FLAG_COMPRESSED) != 0;
        mode.bytesPerPixel = name->bytesPerPixel;
        if (description.pixelformat == current.fmt.pix.pixelformat) {
            modes.active = mode;
            modes.active.width = int(current.fmt.pix.width);
            modes.active.height = int(current.fmt.pix.height);
            modes.active.rates = frameRates(fd.get(), description.pixelformat,
                                            modes.active.width, modes.active.height);
            activeKnown = true;
        }
        for (const QSize& size : frameSizes(fd.get(), description.pixelformat)) {
            mode.width = size.width();
            mode.height = size.height();
            mode.rates = frameRates(fd.get(), description.pixelformat, mode.width, mode.height);
            if (!mode.rates.empty())
                modes.offered.push_back(mode);
        }
    }
    if (!activeKnown)
        return std::nullopt;
    return modes;
}

// The name the driver gives the node at `path` and whether it is the main node of its device
// (a UVC camera also has a metadata node), read from sysfs, which needs no access to the node.
std::pair<QString, bool> sysfsName(const QString& path)
{
    const QString folder =
        QStringLiteral("/sys/class/video4linux/") + QFileInfo(path).fileName() + QLatin1Char('/');
    QFile name(folder + QStringLiteral("name"));
    QFile index(folder + QStringLiteral("index"));
    const QString text = name.open(QIODevice::ReadOnly)
                             ? QString::fromUtf8(name.readAll()).trimmed()
                             : QFileInfo(path).fileName();
    const bool main = !index.open(QIODevice::ReadOnly) || index.readAll().trimmed() == "0";
    return {text, main};
}

void CaptureDevices::refresh()
{
    assertOnOwnThread(this);
    std::vector<CaptureSource> cameras;
    std::vector<QString> deniedCameras;
    int opened = 0;
    QStringList nodes = QDir(deviceFolder_).entryList({QStringLiteral("video*")}, QDir::System |
                                                                                      QDir::Files);
    nodes = nodes.filter(QRegularExpression(QStringLiteral("^video[0-9]+$")));
    QCollator numeric;
    numeric.setNumericMode(true);
    std::sort(nodes.begin(), nodes.end(), numeric);
    for (const QString& node : nodes) {
        const QString path = deviceFolder_ + QLatin1Char('/') + node;
        FileDescriptor fd(::open(QFile::encodeName(path).constData(), O_RDWR | O_NONBLOCK));
        if (fd.get() < 0) {
            if (errno != EACCES)
                continue;
            // Listed, so its feed says "no access" rather than "disconnected".
            const auto [name, main] = sysfsName(path);
            if (!main)
                continue;
            deniedCameras.push_back(stableID(path));
            cameras.push_back({deniedCameras.back(), name});
            continue;
        }
        v4l2_capability capability{};
        if (ioctlRetrying(fd.get(), VIDIOC_QUERYCAP, &capability) < 0 ||
            !capturesVideo(capability.capabilities, capability.device_caps))
            continue;
        ++opened;
        cameras.push_back({stableID(path), QString::fromUtf8(reinterpret_cast<const char*>(
                                               capability.card))});
    }
    cameras.push_back(TestPatternSource::source());
    const auto cameraAuthorization = !deniedCameras.empty() && opened == 0
                                         ? Authorization::denied
                                         : Authorization::authorized;
    deniedCameras_ = std::move(deniedCameras);
    auto microphones = listMicrophones();

    if (cameras != cameras_) {
        for (const auto& camera : cameras) {
            if (!camera.name.trimmed().isEmpty())
                knownCameraNames_[camera.id] = camera.name;
        }
        cameras_ = std::move(cameras);
        Q_EMIT camerasChanged();
    }
    if (microphones != microphones_) {
        microphones_ = std::move(microphones);
        Q_EMIT microphonesChanged();
    }
    if (cameraAuthorization != cameraAuthorization_) {
        cameraAuthorization_ = cameraAuthorization;
        Q_EMIT cameraAuthorizationChanged();
    }
    if (microphoneAuthorization_ != Authorization::authorized) {
        microphoneAuthorization_ = Authorization::authorized;
        Q_EMIT microphoneAuthorizationChanged();
    }
}

std::optional<QString> CaptureDevices::lastKnownCameraName(const QString& id) const
{
    const auto found = knownCameraNames_.find(id);
    if (found == knownCameraNames_.end())
        return std::nullopt;
    return found->second;
}

CaptureDevices::Authorization CaptureDevices::cameraAuthorization(const QString& id) const
{
    assertOnOwnThread(this);
    return std::find(deniedCameras_.begin(), deniedCameras_.end(), id) != deniedCameras_.end()
               ? Authorization::denied
               : Authorization::authorized;
}

void CaptureDevices::requestCameraAccess()
{
    refresh();
}

void CaptureDevices::requestMicrophoneAccess()
{
    refresh();
}

std::unique_ptr<VideoSource> CaptureDevices::openCamera(const QString& id, Clock& clock,
                                                        std::optional<QSize> size)
{
    return V4L2Camera::open(id, clock, size);
}

std::unique_ptr<AudioSource> CaptureDevices::openMicrophone(const QString& id, Clock& clock)
{
    return PulseMicrophone::open(id, clock);
}

} // namespace orvane
