#pragma once

#include "capture/CaptureError.h"
#include "capture/MovieCodec.h"

#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace orvane {

struct AudioBuffer;
struct Frame;
class MovieWriter;

// Writes one camera's frames, and for the main camera its sound, into one movie. Frames are
// handed over on the capture thread through a small bounded queue and encoded on the
// recorder's own thread; a frame that finds the queue full is dropped and counted, and the
// capture thread never waits. The movie is made on the first frame, at that frame's size.
// append*() on the capture thread; finish() and the counters from any thread.
class Recorder {
public:
    // How a recording ended: the movie's location, or the failure, or neither when no frame
    // ever arrived (no file exists then).
    struct Outcome {
        std::optional<QString> movie;
        std::optional<CaptureError> error;
        friend bool operator==(const Outcome&, const Outcome&) = default;
    };

    static constexpr int kQueuedFrames = 4;

    Recorder(QString path, MovieCodec codec, bool includesAudio);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    const QString& path() const { return path_; }
    MovieCodec codec() const { return codec_; }
    bool includesAudio() const { return includesAudio_; }

    // Called once, on the recorder's thread, when writing fails mid-way.
    void setFailureHandler(std::function<void(const CaptureError&)> handler);

    void appendVideo(std::shared_ptr<const Frame> frame);
    void appendAudio(const AudioBuffer& buffer);

    // Stops taking data, writes what is queued and closes the movie; `completion` then runs
    // on the recorder's thread. Later calls do nothing.
    void finish(std::function<void(Outcome)> completion);
    // finish() and wait for its outcome.
    Outcome finishAndWait();

    int droppedFrames() const { return droppedFrames_.load(); }
    // Waits until the queue has room for another frame, so a test that steps frames faster
    // than real time loses none.
    void waitForRoomForTesting();
    int writtenFrames() const { return writtenFrames_.load(); }

private:
    void run();
    bool startWriter(const Frame& first);

    const QString path_;
    const MovieCodec codec_;
    const bool includesAudio_;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable room_;
    std::deque<std::shared_ptr<const Frame>> frames_;
    // Sound waiting to be encoded: a ring of interleaved stereo samples made once.
    std::vector<float> ring_;
    std::size_t ringStart_ = 0;
    std::size_t ringCount_ = 0;
    bool finishing_ = false;
    std::function<void(Outcome)> completion_;
    std::function<void(const CaptureError&)> failureHandler_;

    // Capture thread only: the movie's time line starts at the first frame.
    std::optional<double> startTime_; // seconds on the monotonic clock
    bool audioStarted_ = false;

    std::atomic<int> droppedFrames_{0};
    std::atomic<int> writtenFrames_{0};

    // Recorder thread only.
    std::unique_ptr<MovieWriter> writer_;
    std::optional<CaptureError> failure_;
    std::int64_t lastPosition_ = -1;
    double firstFrameAt_ = 0;
    std::vector<float> audioScratch_;

    std::thread thread_;
};

} // namespace orvane
