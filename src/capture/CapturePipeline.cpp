#include "capture/CapturePipeline.h"

#include "capture/AudioSource.h"
#include "capture/Frame.h"
#include "capture/FramePool.h"
#include "capture/FrameSink.h"
#include "capture/Recorder.h"
#include "capture/VideoSource.h"
#include "overlay/OverlayRenderer.h"

#include <algorithm>
#include <cmath>

namespace orvane {

namespace {

constexpr float kSilenceLevel = -160.0f;

// Mirrors each plane left to right; a chroma sample stays with its pair of luma pixels.
void mirror(Frame& frame)
{
    const YuvPlanes planes = frame.planes();
    for (int row = 0; row < planes.height; ++row) {
        std::uint8_t* line = planes.y + std::ptrdiff_t(row) * planes.yStride;
        std::reverse(line, line + planes.width);
    }
    for (int row = 0; row < planes.chromaHeight(); ++row)
        for (std::uint8_t* plane : {planes.cb, planes.cr}) {
            std::uint8_t* line = plane + std::ptrdiff_t(row) * planes.cStride;
            std::reverse(line, line + planes.chromaWidth());
        }
}

} // namespace

CapturePipeline::CapturePipeline(Clock& clock)
    : clock_(clock)
{
    sinks_.publish(std::make_shared<const std::vector<std::shared_ptr<FrameSink>>>());
}

CapturePipeline::~CapturePipeline() = default;

double CapturePipeline::frameAge(Instant now, std::optional<Instant> presentedAt)
{
    if (!presentedAt)
        return 0;
    const double age = secondsBetween(*presentedAt, now);
    if (!(age > 0))
        return 0;
    return std::min(age, 1.0);
}

std::vector<float> CapturePipeline::levels(const AudioBuffer& buffer)
{
    std::vector<float> result(std::size_t(std::max(0, buffer.channels)), kSilenceLevel);
    const int frames = buffer.frameCount();
    if (frames == 0)
        return result;
    for (int channel = 0; channel < buffer.channels; ++channel) {
        double power = 0;
        for (int i = 0; i < frames; ++i) {
            const double sample = buffer.samples[std::size_t(i * buffer.channels + channel)];
            power += sample * sample;
        }
        power /= frames;
        if (power > 0)
            result[std::size_t(channel)] = std::max(kSilenceLevel, float(10 * std::log10(power)));
    }
    return result;
}

std::shared_ptr<const Frame> CapturePipeline::captureFrame(VideoSource& source)
{
    captureThread_.check();
    const Instant now = clock_.now();
    if (!pool_ || pool_->width() != source.width() || pool_->height() != source.height())
        pool_ = std::make_unique<FramePool>(source.width(), source.height(), kPoolFrames);

    droppedFrames_ += source.takeLostFrames();
    std::shared_ptr<Frame> frame = pool_->acquire();
    if (!frame) {
        // Every buffer is still held by a slow consumer: this picture is lost.
        source.skipFrame();
        ++droppedFrames_;
        publishStats(source.width(), source.height());
        return nullptr;
    }
    const std::optional<Instant> presentedAt = source.readFrame(*frame);
    const double age = frameAge(now, presentedAt);
    frame->capturedAt = addSeconds(now, -age);
    frame->wallCapturedAt = addSeconds(clock_.wallNow(), -age);
    frame->frameDuration = source.frameDuration();
    if (mirrored_)
        mirror(*frame);
    frame->overlay = overlay_.get();
    if (frame->overlay) {
        // Blended into the frame's own planes; its clock shows the moment of capture.
        if (!renderer_)
            renderer_ = std::make_unique<OverlayRenderer>();
        renderer_->draw(*frame->overlay, frame->planes(), frame->wallCapturedAt);
    }

    frameTimes_.push_back(now);
    while (!frameTimes_.empty() && secondsBetween(frameTimes_.front(), now) > 1.0)
        frameTimes_.pop_front();

    std::shared_ptr<const Frame> shared = std::move(frame);
    preview_.publish(shared);
    if (recorder_)
        recorder_->appendVideo(shared);
    publishStats(shared->width, shared->height); // after the recorder, to count its drop
    const auto sinks = sinks_.get();
    for (const auto& sink : *sinks)
        sink->takeFrame(shared, shared->frameDuration);
    return shared;
}

void CapturePipeline::captureAudio(AudioBuffer& buffer)
{
    captureThread_.check();
    const float gain = gain_;
    if (gain != 1.0f)
        for (float& sample : buffer.samples)
            sample = std::clamp(sample * gain, -1.0f, 1.0f);
    const auto measured = levels(buffer);
    {
        std::lock_guard lock(statsMutex_);
        stats_.audioLevels = measured;
    }
    if (recorder_ && recorder_->includesAudio())
        recorder_->appendAudio(buffer);
}

void CapturePipeline::addSink(std::shared_ptr<FrameSink> sink)
{
    std::lock_guard edit(sinksEditMutex_);
    auto next = std::make_shared<std::vector<std::shared_ptr<FrameSink>>>(*sinks_.get());
    next->push_back(std::move(sink));
    sinks_.publish(std::move(next));
}

void CapturePipeline::removeSink(const FrameSink* sink)
{
    std::lock_guard edit(sinksEditMutex_);
    auto next = std::make_shared<std::vector<std::shared_ptr<FrameSink>>>(*sinks_.get());
    std::erase_if(*next, [sink](const auto& s) { return s.get() == sink; });
    sinks_.publish(std::move(next));
}

std::shared_ptr<Recorder> CapturePipeline::setRecorder(std::shared_ptr<Recorder> recorder)
{
    captureThread_.check();
    if (recorder)
        recorder->bindCaptureThread();
    if (recorder_)
        droppedByFinishedRecorders_ += recorder_->droppedFrames();
    return std::exchange(recorder_, std::move(recorder));
}

CaptureStats CapturePipeline::stats() const
{
    std::lock_guard lock(statsMutex_);
    return stats_;
}

void CapturePipeline::resetStats()
{
    frameTimes_.clear();
    std::lock_guard lock(statsMutex_);
    stats_.framesPerSecond = 0;
    stats_.audioLevels.clear();
}

void CapturePipeline::publishStats(int width, int height)
{
    const int dropped =
        droppedFrames_ + droppedByFinishedRecorders_ + (recorder_ ? recorder_->droppedFrames() : 0);
    std::lock_guard lock(statsMutex_);
    stats_.width = width;
    stats_.height = height;
    stats_.framesPerSecond = double(frameTimes_.size());
    stats_.droppedFrames = dropped;
    stats_.encoderDroppedFrames = recorder_ ? recorder_->droppedFrames() : 0;
}

} // namespace orvane
