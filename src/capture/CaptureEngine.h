#pragma once

#include "base/Clock.h"
#include "capture/CaptureError.h"
#include "capture/CaptureStats.h"
#include "capture/MovieChapter.h"
#include "capture/MovieCodec.h"
#include "capture/Recorder.h"
#include "overlay/OverlayContent.h"

#include <QObject>
#include <QSize>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace orvane {

class AudioSource;
class CapturePipeline;
class FrameSink;
class VideoSource;
struct AudioBuffer;
struct Frame;

// One camera, and for the main camera its microphone, captured on the engine's own capture
// thread, which opens the devices, runs the CapturePipeline for every picture and sound
// buffer and feeds the recorder. Main thread only; results come back on the main thread.
class CaptureEngine : public QObject {
    Q_OBJECT
    Q_PROPERTY(QSize videoSize READ videoSize NOTIFY videoSizeChanged)
    Q_PROPERTY(bool isMirrored READ isMirrored WRITE setMirrored NOTIFY isMirroredChanged)

public:
    // The size and rate of the built-in test pattern camera.
    struct TestPatternFormat {
        int width = 1920;
        int height = 1080;
        double framesPerSecond = 30;
    };

    explicit CaptureEngine(Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~CaptureEngine() override;

    // Puts the calling thread ahead of every other thread of ours (round-robin real-time
    // priority when the system allows it), as each engine does for its capture thread.
    static void raiseCaptureThreadPriority();

    void setTestPatternFormat(const TestPatternFormat& format);

    // Opens the camera and the microphone with these identifiers, either of which may be
    // none, on the capture thread; the same camera as before is kept running. `done` gets
    // the first failure (camera before microphone), or none, on the main thread.
    void configure(std::optional<QString> cameraID, std::optional<QString> microphoneID,
                   std::function<void(std::optional<CaptureError>)> done = {});

    bool isMirrored() const { return mirrored_; }
    void setMirrored(bool mirrored);
    float gain() const { return gain_; }
    void setGain(float gain);

    // What the overlay shows on this camera's frames, under this camera's own label.
    void setOverlay(const OverlayContent& content, const QString& label);
    void clearOverlay();

    void addSink(std::shared_ptr<FrameSink> sink);
    void removeSink(const FrameSink* sink);

    // Starts writing this camera to a movie at `path`; the movie is made on the next frame.
    void startRecording(const QString& path, MovieCodec codec, bool includesAudio);
    // Stops the recording at once: `done` gets the outcome on the main thread as soon as the
    // fragmented movie is closed, which plays as it is. The movie is then rewritten as an
    // ordinary one with `chapters` away from the capture path (movieFinished() tells when).
    // Quitting waits a few seconds for a rewrite under way, then leaves the fragmented movie
    // for finishMovie() to finish later.
    void stopRecording(std::vector<MovieChapter> chapters,
                       std::function<void(Recorder::Outcome)> done);
    void stopRecording(std::function<void(Recorder::Outcome)> done)
    {
        stopRecording({}, std::move(done));
    }
    bool isRecording() const { return recording_ != nullptr; }
    // The running movie's time zero, once its first frame is written; none before and after.
    std::optional<MovieStart> recordingStart() const { return recordingStart_; }
    // Frames the running recording has written to its movie so far.
    int recordedFramesForTesting() const { return recording_ ? recording_->writtenFrames() : 0; }
    // What made the running recording fail, if it did.
    std::optional<CaptureError> recordingFailure() const;

    CaptureStats stats() const;
    // The newest composited frame, for the preview; none before the first frame.
    std::shared_ptr<const Frame> latestFrame() const;
    QSize videoSize() const { return videoSize_; }

Q_SIGNALS:
    void videoSizeChanged(QSize size);
    // The first frame after the camera was (re)opened arrived.
    void framesStarted(QSize size);
    void isMirroredChanged(bool mirrored);
    // The camera stopped delivering (unplugged); a later configure() opens it again.
    void cameraLost();
    void recordingFailed(const orvane::CaptureError& error);
    // The running recording dropped its first frame because the encoder could not keep up
    // with the camera (this computer is too slow for the codec); once per recording.
    // stats().encoderDroppedFrames counts them.
    void recordingFallingBehind();
    // The first frame of the running recording is in the movie: its time zero is known.
    void recordingStarted(const orvane::MovieStart& start);
    // The movie at `path`, stopped before, was rewritten as an ordinary one (or stays
    // fragmented: `movie.result` says why).
    void movieFinished(const QString& path, const orvane::FinishedMovie& movie);

private:
    void post(std::function<void()> command);
    void run();
    std::optional<CaptureError> applyConfiguration(const std::optional<QString>& cameraID,
                                                   const std::optional<QString>& microphoneID);
    void takeFrame();
    void takeSound();
    template <class F> void toMainThread(F call);

    Clock& clock_;
    std::unique_ptr<CapturePipeline> pipeline_;
    bool mirrored_ = false;
    float gain_ = 1.0f;
    QSize videoSize_;
    std::shared_ptr<Recorder> recording_;
    std::optional<MovieStart> recordingStart_;
    std::vector<std::shared_ptr<Recorder>> finishing_;
    mutable std::mutex failureMutex_;
    std::optional<CaptureError> recordingFailure_;

    // Commands for the capture thread.
    std::mutex commandsMutex_;
    std::condition_variable commandsWake_;
    std::vector<std::function<void()>> commands_;
    bool stopping_ = false;

    // Capture thread only.
    TestPatternFormat testPattern_;
    std::unique_ptr<VideoSource> camera_;
    std::unique_ptr<AudioSource> microphone_;
    std::optional<QString> cameraID_;
    std::optional<QString> microphoneID_;
    QSize lastSize_;
    std::unique_ptr<AudioBuffer> sound_;

    std::thread thread_;
};

} // namespace orvane
