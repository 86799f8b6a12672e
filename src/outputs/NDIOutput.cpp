#include "outputs/NDIOutput.h"

#include "base/Checks.h"
#include "capture/Frame.h"
#include "outputs/NDILibrary.h"

#include <QLoggingCategory>

#include <climits>
#include <cmath>
#include <optional>

namespace orvane {

namespace {

Q_LOGGING_CATEGORY(logNDI, "orvane.outputs.ndi")

// The rate k * numeratorScale / denominator for a whole k (to one part in 10^4) that fits,
// when `perSecond` is one; else nothing.
std::optional<NDIFrameRate> exactRate(double perSecond, int numeratorScale, int denominator)
{
    const double k = perSecond * denominator / numeratorScale;
    const double rounded = std::round(k);
    if (rounded < 1 || rounded * numeratorScale >= double(INT_MAX) ||
        std::abs(k - rounded) > 1e-4 * k)
        return std::nullopt;
    return NDIFrameRate{int(rounded) * numeratorScale, denominator};
}

} // namespace

NDIFrameRate ndiFrameRate(double frameDuration)
{
    if (!std::isfinite(frameDuration) || frameDuration <= 0)
        return {};
    const double perSecond = 1 / frameDuration;
    if (!std::isfinite(perSecond))
        return {};
    if (const auto rate = exactRate(perSecond, 1, 1))
        return *rate;
    if (const auto rate = exactRate(perSecond, 1000, 1001))
        return *rate;
    const double thousandths = std::round(perSecond * 1000);
    if (thousandths < 1 || thousandths >= double(INT_MAX))
        return {};
    return {int(thousandths), 1000};
}

NDIlib_video_frame_v2_t ndiVideoFrame(const Frame& frame, double frameDuration)
{
    const NDIFrameRate rate = ndiFrameRate(frameDuration);
    NDIlib_video_frame_v2_t video{};
    video.xres = frame.width;
    video.yres = frame.height;
    // The frame's own planes: Y, then Cb and Cr with rows half as long, one after the other.
    video.FourCC = NDIlib_FourCC_video_type_I420;
    video.frame_rate_N = rate.numerator;
    video.frame_rate_D = rate.denominator;
    video.picture_aspect_ratio = 0;
    video.frame_format_type = NDIlib_frame_format_type_progressive;
    video.timecode = NDIlib_send_timecode_synthesize;
    video.p_data = frame.data[0];
    video.line_stride_in_bytes = frame.stride[0];
    video.p_metadata = nullptr;
    video.timestamp = 0;
    return video;
}

NDIOutput::NDIOutput(QObject* parent)
    : QObject(parent)
{
    thread_ = std::thread([this] { run(); });
}

NDIOutput::~NDIOutput()
{
    post([this] { stopSender(); });
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void NDIOutput::start(std::shared_ptr<const NDILibrary> library, const QString& name)
{
    assertOnOwnThread(this);
    const QByteArray sourceName = name.isEmpty() ? QByteArrayLiteral("Orvane") : name.toUtf8();
    post([this, library = std::move(library), sourceName] {
        stopSender();
        library_ = library;
        NDIlib_send_create_t settings{};
        settings.p_ndi_name = sourceName.constData();
        settings.p_groups = nullptr;
        settings.clock_video = false; // the camera paces the frames
        settings.clock_audio = false;
        sender_ = library_ ? library_->sendCreate(&settings) : nullptr;
        if (!sender_)
            qCWarning(logNDI, "ndi: the runtime made no sender named \"%s\"",
                      sourceName.constData());
        isRunning_.store(sender_ != nullptr);
        Q_EMIT startFinished(sender_ != nullptr);
    });
}

void NDIOutput::stop()
{
    assertOnOwnThread(this);
    post([this] { stopSender(); });
}

void NDIOutput::pollReceivers()
{
    assertOnOwnThread(this);
    post([this] {
        const int count = sender_ ? std::max(0, library_->connections(sender_, 0)) : 0;
        if (receivers_.exchange(count) != count)
            Q_EMIT receiversChanged(count);
    });
}

void NDIOutput::send(std::shared_ptr<const Frame> frame, double frameDuration)
{
    if (!frame || !isRunning_.load(std::memory_order_relaxed))
        return;
    if (isBusy_.exchange(true))
        return; // one frame is in flight: NDI never queues old frames
    {
        std::lock_guard lock(mutex_);
        pendingFrame_.swap(frame);
        pendingDuration_ = frameDuration;
    }
    wake_.notify_one();
}

void NDIOutput::post(std::function<void()> command)
{
    {
        std::lock_guard lock(mutex_);
        commands_.push_back(std::move(command));
    }
    wake_.notify_one();
}

void NDIOutput::run()
{
    for (;;) {
        std::deque<std::function<void()>> commands;
        std::shared_ptr<const Frame> frame;
        double duration = 0;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !commands_.empty() || pendingFrame_; });
            commands.swap(commands_);
            frame.swap(pendingFrame_);
            duration = pendingDuration_;
            if (stopping_ && commands.empty())
                return;
        }
        for (auto& command : commands)
            command();
        if (frame) {
            if (sender_)
                sendNow(*frame, duration);
            frame.reset();
            isBusy_.store(false);
        }
    }
}

void NDIOutput::stopSender()
{
    isRunning_.store(false);
    if (sender_)
        library_->sendDestroy(sender_);
    sender_ = nullptr;
    if (receivers_.exchange(0) != 0)
        Q_EMIT receiversChanged(0);
}

void NDIOutput::sendNow(const Frame& frame, double frameDuration)
{
    if (!frame.data[0])
        return;
    const NDIlib_video_frame_v2_t video = ndiVideoFrame(frame, frameDuration);
    library_->sendVideo(sender_, &video); // synchronous: the frame is free once it returns
}

} // namespace orvane
