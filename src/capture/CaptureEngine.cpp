#include "capture/CaptureEngine.h"

#include "capture/AudioSource.h"
#include "capture/CaptureDevices.h"
#include "capture/CaptureLog.h"
#include "capture/CapturePipeline.h"
#include "capture/Frame.h"
#include "capture/TestPatternSource.h"
#include "capture/ToneSource.h"

#include "base/Checks.h"

#include <QMetaObject>

#include <pthread.h>
#include <sched.h>

namespace orvane {

namespace {

// How long the capture thread waits for a picture before it looks at its commands again.
constexpr Seconds kFrameWait{0.02};
// How long quitting waits for stopped movies still being rewritten as ordinary ones.
constexpr Seconds kQuitGrace{3.0};

} // namespace

void CaptureEngine::raiseCaptureThreadPriority()
{
    // Capture runs ahead of everything else of ours; without the right to raise it, it stays.
    sched_param param{};
    param.sched_priority = 1;
    if (pthread_setschedparam(pthread_self(), SCHED_RR, &param) != 0)
        qCDebug(lcCapture, "capture: running at normal priority");
}

CaptureEngine::CaptureEngine(Clock& clock, QObject* parent)
    : QObject(parent)
    , clock_(clock)
    , pipeline_(std::make_unique<CapturePipeline>(clock))
    , sound_(std::make_unique<AudioBuffer>())
{
    thread_ = std::thread([this] { run(); });
}

CaptureEngine::~CaptureEngine()
{
    {
        std::lock_guard lock(commandsMutex_);
        stopping_ = true;
    }
    commandsWake_.notify_one();
    thread_.join();
    pipeline_->bindCaptureThread(); // the capture thread has ended
    pipeline_->setRecorder(nullptr);
    // Quitting while recording stops the movie; a short rewrite may end, a long one is left
    // for later and the movie stays fragmented, whole and playable.
    if (recording_) {
        recording_->finish(nullptr);
        finishing_.push_back(std::move(recording_));
    }
    const Instant until = addSeconds(Clock::system().now(), kQuitGrace.count());
    for (const auto& recorder : finishing_)
        recorder->waitUntilFinished(
            Seconds(std::max(0.0, secondsBetween(Clock::system().now(), until))));
    for (const auto& recorder : finishing_)
        recorder->cancelFinishing();
    finishing_.clear();
}

template <class F> void CaptureEngine::toMainThread(F call)
{
    QMetaObject::invokeMethod(this, std::move(call), Qt::QueuedConnection);
}

void CaptureEngine::post(std::function<void()> command)
{
    {
        std::lock_guard lock(commandsMutex_);
        commands_.push_back(std::move(command));
    }
    commandsWake_.notify_one();
}

void CaptureEngine::setTestPatternFormat(const TestPatternFormat& format)
{
    assertOnOwnThread(this);
    post([this, format] { testPattern_ = format; });
}

void CaptureEngine::configure(std::optional<QString> cameraID, std::optional<QString> microphoneID,
                              std::function<void(std::optional<CaptureError>)> done)
{
    assertOnOwnThread(this);
    post([this, cameraID, microphoneID, done = std::move(done)] {
        const auto error = applyConfiguration(cameraID, microphoneID);
        if (done)
            toMainThread([done, error] { done(error); });
    });
}

std::optional<CaptureError>
CaptureEngine::applyConfiguration(const std::optional<QString>& cameraID,
                                  const std::optional<QString>& microphoneID)
{
    std::optional<CaptureError> error;
    if (cameraID != cameraID_ || (cameraID && !camera_)) {
        camera_.reset();
        cameraID_.reset();
        lastSize_ = QSize();
        pipeline_->resetStats();
        if (cameraID) {
            if (TestPatternSource::isTestPattern(*cameraID)) {
                const QSize size = TestPatternSource::sizeIn(*cameraID).value_or(
                    QSize(testPattern_.width, testPattern_.height));
                camera_ = std::make_unique<TestPatternSource>(clock_, size.width(), size.height(),
                                                              testPattern_.framesPerSecond);
            } else {
                camera_ = CaptureDevices::openCamera(*cameraID, clock_);
            }
            if (camera_)
                cameraID_ = cameraID;
            else
                error = CaptureError::cameraUnavailable();
        }
    }
    if (microphoneID != microphoneID_ || (microphoneID && !microphone_)) {
        microphone_.reset();
        microphoneID_.reset();
        if (microphoneID) {
            if (*microphoneID == ToneSource::kID)
                microphone_ = std::make_unique<ToneSource>(clock_);
            else
                microphone_ = CaptureDevices::openMicrophone(*microphoneID, clock_);
            if (microphone_)
                microphoneID_ = microphoneID;
            else if (!error)
                error = CaptureError::microphoneUnavailable();
        }
    }
    return error;
}

void CaptureEngine::setMirrored(bool mirrored)
{
    assertOnOwnThread(this);
    if (mirrored == mirrored_)
        return;
    mirrored_ = mirrored;
    pipeline_->setMirrored(mirrored);
    Q_EMIT isMirroredChanged(mirrored);
}

void CaptureEngine::setGain(float gain)
{
    assertOnOwnThread(this);
    gain_ = gain;
    pipeline_->setGain(gain);
}

void CaptureEngine::setOverlay(const OverlayContent& content, const QString& label)
{
    assertOnOwnThread(this);
    auto labelled = std::make_shared<OverlayContent>(content);
    labelled->cameraLabel = label;
    pipeline_->setOverlay(std::move(labelled));
}

void CaptureEngine::clearOverlay()
{
    assertOnOwnThread(this);
    pipeline_->setOverlay(nullptr);
}

void CaptureEngine::addSink(std::shared_ptr<FrameSink> sink)
{
    assertOnOwnThread(this);
    pipeline_->addSink(std::move(sink));
}

void CaptureEngine::removeSink(const FrameSink* sink)
{
    assertOnOwnThread(this);
    pipeline_->removeSink(sink);
}

void CaptureEngine::startRecording(const QString& path, MovieCodec codec, bool includesAudio)
{
    assertOnOwnThread(this);
    if (!holds(recording_ == nullptr, "one recording at a time per camera"))
        return;
    {
        std::lock_guard lock(failureMutex_);
        recordingFailure_.reset();
    }
    auto recorder = std::make_shared<Recorder>(path, codec, includesAudio);
    recorder->setFailureHandler([this](const CaptureError& error) {
        {
            std::lock_guard lock(failureMutex_);
            recordingFailure_ = error;
        }
        toMainThread([this, error] { Q_EMIT recordingFailed(error); });
    });
    Recorder* started = recorder.get();
    recorder->setStartHandler([this, started](const MovieStart& start) {
        toMainThread([this, started, start] {
            if (recording_.get() != started)
                return; // stopped meanwhile
            recordingStart_ = start;
            Q_EMIT recordingStarted(start);
        });
    });
    recorder->setFallingBehindHandler([this, started] {
        toMainThread([this, started] {
            if (recording_.get() == started)
                Q_EMIT recordingFallingBehind();
        });
    });
    recordingStart_.reset();
    recording_ = recorder;
    post([this, recorder] { pipeline_->setRecorder(recorder); });
}

void CaptureEngine::stopRecording(std::vector<MovieChapter> chapters,
                                  std::function<void(Recorder::Outcome)> done)
{
    assertOnOwnThread(this);
    if (!recording_) {
        if (done)
            done({});
        return;
    }
    std::shared_ptr<Recorder> recorder = std::move(recording_);
    recordingStart_.reset();
    finishing_.push_back(recorder);
    Recorder* stopped = recorder.get();
    auto completion = [this, done = std::move(done)](Recorder::Outcome outcome) {
        toMainThread([done, outcome] {
            if (done)
                done(outcome);
        });
    };
    auto finished = [this, stopped, path = recorder->path()](const FinishedMovie& movie) {
        toMainThread([this, stopped, path, movie] {
            std::erase_if(finishing_, [stopped](const auto& r) { return r.get() == stopped; });
            Q_EMIT movieFinished(path, movie);
        });
    };
    post([this, recorder, chapters = std::move(chapters), completion = std::move(completion),
          finished = std::move(finished)]() mutable {
        pipeline_->setRecorder(nullptr);
        recorder->finish(std::move(completion), std::move(chapters), std::move(finished));
    });
}

std::optional<CaptureError> CaptureEngine::recordingFailure() const
{
    std::lock_guard lock(failureMutex_);
    return recordingFailure_;
}

CaptureStats CaptureEngine::stats() const
{
    return pipeline_->stats();
}

std::shared_ptr<const Frame> CaptureEngine::latestFrame() const
{
    return pipeline_->latestFrame();
}

void CaptureEngine::run()
{
    raiseCaptureThreadPriority();
    pipeline_->bindCaptureThread();
    std::vector<std::function<void()>> commands;
    for (;;) {
        {
            std::unique_lock lock(commandsMutex_);
            if (!camera_ && !microphone_)
                commandsWake_.wait(lock, [this] { return stopping_ || !commands_.empty(); });
            else if (!camera_)
                commandsWake_.wait_for(lock, kFrameWait,
                                       [this] { return stopping_ || !commands_.empty(); });
            if (stopping_)
                break;
            commands.swap(commands_);
        }
        for (auto& command : commands)
            command();
        commands.clear();
        if (camera_)
            takeFrame();
        if (microphone_)
            takeSound();
    }
    camera_.reset();
    microphone_.reset();
}

void CaptureEngine::takeFrame()
{
    switch (camera_->waitForFrame(kFrameWait)) {
    case VideoSource::Wait::nothingYet:
        return;
    case VideoSource::Wait::lost:
        qCWarning(lcCapture, "capture: camera %s stopped delivering frames",
                  qPrintable(cameraID_.value_or(QString())));
        camera_.reset();
        cameraID_.reset();
        lastSize_ = QSize();
        pipeline_->resetStats();
        toMainThread([this] { Q_EMIT cameraLost(); });
        return;
    case VideoSource::Wait::frameReady:
        break;
    }
    const auto frame = pipeline_->captureFrame(*camera_);
    if (!frame)
        return;
    const QSize size(frame->width, frame->height);
    if (size != lastSize_) {
        lastSize_ = size;
        toMainThread([this, size] {
            Q_EMIT framesStarted(size);
            if (size == videoSize_)
                return;
            videoSize_ = size;
            Q_EMIT videoSizeChanged(size);
        });
    }
}

void CaptureEngine::takeSound()
{
    for (;;) {
        switch (microphone_->read(*sound_)) {
        case AudioSource::Read::nothing:
            return;
        case AudioSource::Read::lost:
            qCWarning(lcCapture, "capture: microphone %s stopped delivering sound",
                      qPrintable(microphoneID_.value_or(QString())));
            microphone_.reset();
            microphoneID_.reset();
            return;
        case AudioSource::Read::buffer:
            pipeline_->captureAudio(*sound_);
            break;
        }
    }
}

} // namespace orvane
