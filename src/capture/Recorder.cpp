#include "capture/Recorder.h"

#include "capture/AudioSource.h"
#include "capture/CaptureLog.h"
#include "capture/Frame.h"
#include "capture/MovieWriter.h"

#include <cmath>
#include <future>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace orvane {

namespace {

constexpr int kAudioRate = 48000;
// Two seconds of stereo sound may wait for the encoder; more is dropped.
constexpr std::size_t kRingSamples = std::size_t(kAudioRate) * 2 * 2;

double secondsOf(Instant at)
{
    return std::chrono::duration_cast<Seconds>(at.time_since_epoch()).count();
}

// Gives the memory freed by a finished recording back to the system. glibc keeps what the
// encoder's threads freed in their own arenas, so without this every recording of a long show
// left its peak resident (about 10 MB more each time, for the first dozen recordings).
void releaseFreedMemory()
{
#if defined(__GLIBC__)
    ::malloc_trim(0);
#endif
}

} // namespace

Recorder::Recorder(QString path, MovieCodec codec, bool includesAudio, MovieWriter::SyncStep sync)
    : path_(std::move(path))
    , codec_(codec)
    , includesAudio_(includesAudio)
    , sync_(std::move(sync))
{
    if (includesAudio_)
        ring_.resize(kRingSamples);
    thread_ = std::thread([this] { run(); });
}

Recorder::~Recorder()
{
    finish(nullptr);
    cancelFinishing(); // the last owner lets go: the fragmented movie stays as it is
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

void Recorder::setStartHandler(std::function<void(const MovieStart&)> handler)
{
    std::lock_guard lock(mutex_);
    startHandler_ = std::move(handler);
}

void Recorder::setFallingBehindHandler(std::function<void()> handler)
{
    std::lock_guard lock(mutex_);
    fallingBehindHandler_ = std::move(handler);
}

void Recorder::appendVideo(std::shared_ptr<const Frame> frame)
{
    captureThread_.check();
    std::function<void()> fellBehind;
    {
        std::lock_guard lock(mutex_);
        if (finishing_)
            return;
        if (frames_.size() < std::size_t(kQueuedFrames)) {
            if (!startTime_)
                startTime_ = secondsOf(frame->capturedAt);
            frames_.push_back(std::move(frame));
            queuedAt_.push_back(std::chrono::steady_clock::now());
        } else if (++droppedFrames_ == 1) {
            fellBehind = fallingBehindHandler_;
        }
    }
    wake_.notify_one();
    if (fellBehind)
        fellBehind();
}

void Recorder::appendAudio(const AudioBuffer& buffer)
{
    captureThread_.check();
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

void Recorder::finish(std::function<void(Outcome)> completion, std::vector<MovieChapter> chapters,
                      std::function<void(const FinishedMovie&)> finished)
{
    {
        std::lock_guard lock(mutex_);
        if (finishing_)
            return;
        finishing_ = true;
        completion_ = std::move(completion);
        chapters_ = std::move(chapters);
        finished_ = std::move(finished);
    }
    wake_.notify_one();
    room_.notify_all();
}

bool Recorder::waitForRoomForTesting(Seconds limit)
{
    std::unique_lock lock(mutex_);
    return room_.wait_for(
        lock, limit, [this] { return frames_.size() < std::size_t(kQueuedFrames) || finishing_; });
}

bool Recorder::waitUntilFinished(Seconds limit)
{
    std::unique_lock lock(rewrite_->mutex);
    return rewrite_->wake.wait_for(lock, limit, [this] { return rewrite_->done; });
}

Recorder::Outcome Recorder::finishAndWait(std::vector<MovieChapter> chapters)
{
    std::promise<Outcome> promise;
    auto outcome = promise.get_future();
    finish([&promise](Outcome o) { promise.set_value(std::move(o)); }, std::move(chapters));
    auto result = outcome.get();
    waitUntilFinished(Seconds(1e6));
    return result;
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
                const double waited =
                    secondsBetween(queuedAt_.front(), std::chrono::steady_clock::now());
                queuedAt_.pop_front();
                if (waited > longestQueueWait_)
                    longestQueueWait_ = waited;
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
            auto position =
                std::llround((secondsOf(frame->capturedAt) - firstFrameAt_) / frame->frameDuration);
            position = std::max<std::int64_t>(position, lastPosition_ + 1);
            const bool first = writtenFrames_ == 0;
            if (writer_->writeVideo(std::move(frame), position)) {
                lastPosition_ = position;
                ++writtenFrames_;
            } else {
                failure_ = CaptureError::writerFailed(writer_->error());
            }
            if (failure_) {
                qCWarning(lcCapture, "recorder: %s: %s", qPrintable(path_),
                          qPrintable(failure_->message));
                reportFailure();
            } else if (first) {
                std::function<void(const MovieStart&)> handler;
                {
                    std::lock_guard lock(mutex_);
                    handler = startHandler_;
                }
                if (handler)
                    handler(*start_);
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
    if (writtenFrames_ > 0)
        outcome.start = start_;
    writer_.reset();
    std::function<void(Outcome)> completion;
    std::function<void(const FinishedMovie&)> finished;
    std::vector<MovieChapter> chapters;
    {
        std::lock_guard lock(mutex_);
        completion = std::move(completion_);
        finished = std::move(finished_);
        chapters = std::move(chapters_);
    }
    const bool made = outcome.movie.has_value();
    const QString path = path_;
    const std::shared_ptr<Rewrite> rewrite = rewrite_;
    // The movie plays as it is from here on; whoever waits for it goes on now. The completion
    // may let go of this recorder: nothing below touches its members.
    if (completion)
        completion(std::move(outcome));
    FinishedMovie result{FinishedMovie::Result::cancelled, {}, 0};
    if (made && !rewrite->cancelled)
        result = finishMovie(path, std::move(chapters), &rewrite->cancelled);
    {
        std::lock_guard lock(rewrite->mutex);
        rewrite->done = true;
    }
    rewrite->wake.notify_all();
    if (finished)
        finished(result);
    releaseFreedMemory();
}

void Recorder::reportFailure()
{
    std::function<void(const CaptureError&)> handler;
    {
        std::lock_guard lock(mutex_);
        handler = failureHandler_;
    }
    if (handler)
        handler(*failure_);
}

bool Recorder::startWriter(const Frame& first)
{
    MovieWriter::Video video;
    video.codec = codec_;
    video.width = first.width;
    video.height = first.height;
    video.frameDuration = first.frameDuration > 0 ? first.frameDuration : 1.0 / 30;
    QString error;
    writer_ = MovieWriter::create(path_, video, includesAudio_, error, sync_);
    if (!writer_) {
        failure_ = CaptureError::writerFailed(error);
        qCWarning(lcCapture, "recorder: could not start %s: %s", qPrintable(path_),
                  qPrintable(error));
        reportFailure();
        return false;
    }
    firstFrameAt_ = secondsOf(first.capturedAt);
    start_ = MovieStart{first.capturedAt, first.wallCapturedAt, video.frameDuration};
    return true;
}

} // namespace orvane
