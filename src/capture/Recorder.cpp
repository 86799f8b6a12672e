#include "capture/Recorder.h"

#include "capture/AudioSource.h"
#include "capture/CaptureLog.h"
#include "capture/Frame.h"
#include "capture/MovieWriter.h"

#include <cmath>
#include <future>

namespace orvane {

namespace {

constexpr int kAudioRate = 48000;
// Two seconds of stereo sound may wait for the encoder; more is dropped.
constexpr std::size_t kRingSamples = std::size_t(kAudioRate) * 2 * 2;

double secondsOf(Instant at)
{
    return std::chrono::duration_cast<Seconds>(at.time_since_epoch()).count();
}

} // namespace

Recorder::Recorder(QString path, MovieCodec codec, bool includesAudio)
    : path_(std::move(path)), codec_(codec), includesAudio_(includesAudio)
{
    if (includesAudio_)
        ring_.resize(kRingSamples);
    thread_ = std::thread([this] { run(); });
}

Recorder::~Recorder()
{
    finish(nullptr);
    if (thread_.get_id() == std::this_thread::get_id())
        thread_.detach(); // the last owner let go inside the completion
    else if (thread_.joinable())
        thread_.join();
}

void Recorder::setFailureHandler(std::function<void(const CaptureError&)> handler)
{
    std::lock_guard lock(mutex_);
    failureHandler_ = std::move(handler);
}

void Recorder::appendVideo(std::shared_ptr<const Frame> frame)
{
    {
        std::lock_guard lock(mutex_);
        if (finishing_)
            return;
        if (frames_.size() >= std::size_t(kQueuedFrames)) {
            ++droppedFrames_;
            return;
        }
        if (!startTime_)
            startTime_ = secondsOf(frame->capturedAt);
        frames_.push_back(std::move(frame));
    }
    wake_.notify_one();
}

void Recorder::appendAudio(const AudioBuffer& buffer)
{
    if (!includesAudio_ || buffer.channels <= 0)
        return;
    {
        std::lock_guard lock(mutex_);
        // Sound before the first frame has no place on the movie's time line.
        if (finishing_ || !startTime_)
            return;
        const int frames = buffer.frameCount();
        int skip = 0;
        int silence = 0;
        if (!audioStarted_) {
            // The sound track starts with the picture: cut what came before the first frame
            // and fill a late start with silence.
            const double offset = secondsOf(buffer.presentedAt) - *startTime_;
            const auto samples = int(std::lround(offset * kAudioRate));
            if (samples < 0)
                skip = std::min(frames, -samples);
            else
                silence = std::min(samples, kAudioRate);
            if (skip == frames)
                return;
            audioStarted_ = true;
        }
        const std::size_t needed = std::size_t(frames - skip + silence) * 2;
        if (ringCount_ + needed > ring_.size())
            return; // the encoder is behind; this sound is lost
        auto push = [&](float left, float right) {
            const std::size_t at = (ringStart_ + ringCount_) % ring_.size();
            ring_[at] = left;
            ring_[(at + 1) % ring_.size()] = right;
            ringCount_ += 2;
        };
        for (int i = 0; i < silence; ++i)
            push(0, 0);
        for (int i = skip; i < frames; ++i) {
            const float* sample = buffer.samples.data() + std::size_t(i * buffer.channels);
            push(sample[0], buffer.channels > 1 ? sample[1] : sample[0]);
        }
    }
    wake_.notify_one();
}

void Recorder::finish(std::function<void(Outcome)> completion)
{
    {
        std::lock_guard lock(mutex_);
        if (finishing_)
            return;
        finishing_ = true;
        completion_ = std::move(completion);
    }
    wake_.notify_one();
}

void Recorder::waitForRoomForTesting()
{
    std::unique_lock lock(mutex_);
    room_.wait(lock, [this] { return frames_.size() < std::size_t(kQueuedFrames) || finishing_; });
}

Recorder::Outcome Recorder::finishAndWait()
{
    std::promise<Outcome> promise;
    auto outcome = promise.get_future();
    finish([&promise](Outcome o) { promise.set_value(std::move(o)); });
    return outcome.get();
}

void Recorder::run()
{
    for (;;) {
        std::shared_ptr<const Frame> frame;
        bool done = false;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return !frames_.empty() || ringCount_ > 0 || finishing_; });
            if (!frames_.empty()) {
                frame = std::move(frames_.front());
                frames_.pop_front();
                room_.notify_all();
            }
            audioScratch_.resize(ringCount_);
            for (std::size_t i = 0; i < ringCount_; ++i)
                audioScratch_[i] = ring_[(ringStart_ + i) % ring_.size()];
            ringStart_ = ring_.empty() ? 0 : (ringStart_ + ringCount_) % ring_.size();
            ringCount_ = 0;
            done = finishing_ && frames_.empty();
        }
        if (frame && !failure_ && (writer_ || startWriter(*frame))) {
            auto position = std::llround((secondsOf(frame->capturedAt) - firstFrameAt_) /
                                         frame->frameDuration);
            position = std::max<std::int64_t>(position, lastPosition_ + 1);
            if (writer_->writeVideo(*frame, position)) {
                lastPosition_ = position;
                ++writtenFrames_;
            } else {
                failure_ = CaptureError::writerFailed(writer_->error());
            }
            frame.reset(); // back to the camera's pool at once
            if (failure_) {
                std::function<void(const CaptureError&)> handler;
                {
                    std::lock_guard lock(mutex_);
                    handler = failureHandler_;
                }
                qCWarning(lcCapture, "recorder: %s: %s", qPrintable(path_),
                          qPrintable(failure_->message));
                if (handler)
                    handler(*failure_);
            }
        }
        if (!audioScratch_.empty() && writer_ && !failure_)
            writer_->writeAudio(audioScratch_.data(), int(audioScratch_.size() / 2));
        if (done)
            break;
    }

    Outcome outcome;
    if (failure_) {
        outcome.error = failure_;
    } else if (writer_) {
        if (writer_->finish())
            outcome.movie = path_;
        else
            outcome.error = CaptureError::writerFailed(writer_->error());
    }
    writer_.reset();
    std::function<void(Outcome)> completion;
    {
        std::lock_guard lock(mutex_);
        completion = std::move(completion_);
    }
    if (completion)
        completion(std::move(outcome));
}

bool Recorder::startWriter(const Frame& first)
{
    MovieWriter::Video video;
    video.codec = codec_;
    video.width = first.width;
    video.height = first.height;
    video.frameDuration = first.frameDuration > 0 ? first.frameDuration : 1.0 / 30;
    QString error;
    writer_ = MovieWriter::create(path_, video, includesAudio_, error);
    if (!writer_) {
        failure_ = CaptureError::writerFailed(error);
        qCWarning(lcCapture, "recorder: could not start %s: %s", qPrintable(path_),
                  qPrintable(error));
        std::function<void(const CaptureError&)> handler;
        {
            std::lock_guard lock(mutex_);
            handler = failureHandler_;
        }
        if (handler)
            handler(*failure_);
        return false;
    }
    firstFrameAt_ = secondsOf(first.capturedAt);
    return true;
}

} // namespace orvane
