#pragma once

#include "base/Checks.h"
#include "base/Clock.h"
#include "capture/CaptureError.h"
#include "capture/FinishMovie.h"
#include "capture/MovieChapter.h"
#include "capture/MovieCodec.h"
#include "capture/MovieWriter.h"

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

// A movie's time zero: the moment its first frame was captured, on the monotonic clock and on
// the wall clock, and the camera's frame duration in seconds. A cue at `capturedAt + s` lies
// `s` seconds into the movie. Plain value.
struct MovieStart {
    Instant capturedAt{};
    WallTime wallCapturedAt{};
    double frameDuration = 0;
    friend bool operator==(const MovieStart&, const MovieStart&) = default;
};

// Writes one camera's frames, and for the main camera its sound, into one movie. Frames are
// handed over on the capture thread through a small bounded queue and encoded on the
// recorder's own thread; a frame that finds the queue full is dropped and counted, and the
// capture thread never waits. The movie is made on the first frame, at that frame's size;
// later frames of another size are scaled to it. Stopping closes the fragmented movie, which
// plays at once, and only then rewrites it as an ordinary movie with its chapters, still on
// the recorder's thread and away from the capture path. append*() on the capture thread (the
// thread that last called bindCaptureThread()); finish() and the counters from any thread.
class Recorder {
public:
    // How a recording ended: the movie's location, or the failure, or neither when no frame
    // ever arrived (no file exists then); and the movie's time zero once a frame was written.
    struct Outcome {
        std::optional<QString> movie;
        std::optional<CaptureError> error;
        std::optional<MovieStart> start;
        friend bool operator==(const Outcome&, const Outcome&) = default;
    };

    // A third of a second at 30 frames a second: room for an encoder's slow moments (an HEVC
    // scene cut takes several frame times) at about 3 MB a frame at 1080p.
    static constexpr int kQueuedFrames = 10;
    // The frames a recorder holds at most: its queue and the one being encoded.
    static constexpr int kHeldFrames = kQueuedFrames + 1;

    // `sync` makes each fragment durable (MovieWriter::syncData unless given).
    Recorder(QString path, MovieCodec codec, bool includesAudio, MovieWriter::SyncStep sync = {});
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    const QString& path() const { return path_; }
    MovieCodec codec() const { return codec_; }
    bool includesAudio() const { return includesAudio_; }

    // Called once, on the recorder's thread, when writing fails mid-way.
    void setFailureHandler(std::function<void(const CaptureError&)> handler);
    // Called once, on the recorder's thread, when the first frame is in the movie.
    void setStartHandler(std::function<void(const MovieStart&)> handler);
    // Called once, on the capture thread, when the first frame is dropped because the queue
    // was full: the encoder cannot keep up with the camera on this computer.
    void setFallingBehindHandler(std::function<void()> handler);
    // The calling thread becomes the one that appends.
    void bindCaptureThread() { captureThread_.rebind(); }

    void appendVideo(std::shared_ptr<const Frame> frame);
    void appendAudio(const AudioBuffer& buffer);

    // Stops taking data, writes what is queued and closes the fragmented movie; `completion`
    // then runs on the recorder's thread with the outcome. After it, when a movie was made,
    // the movie is rewritten as an ordinary one with `chapters` (see finishMovie()) and
    // `finished` runs on the recorder's thread. Later calls do nothing.
    void finish(std::function<void(Outcome)> completion, std::vector<MovieChapter> chapters = {},
                std::function<void(const FinishedMovie&)> finished = {});
    // finish() and wait for the outcome and for the rewrite.
    Outcome finishAndWait(std::vector<MovieChapter> chapters = {});
    // Stops a rewrite under way (or still to come), leaving the fragmented movie. Any thread.
    void cancelFinishing() { rewrite_->cancelled = true; }
    // Waits at most `limit` for the rewrite to end; whether it has.
    bool waitUntilFinished(Seconds limit);

    int droppedFrames() const { return droppedFrames_.load(); }
    // Waits at most `limit` until the queue has room for another frame, so a test that steps
    // frames faster than real time loses none; whether there is room.
    bool waitForRoomForTesting(Seconds limit = Seconds(60));
    int writtenFrames() const { return writtenFrames_.load(); }
    // The longest any frame waited in the queue before the encoder took it, in seconds.
    double longestQueueWait() const { return longestQueueWait_.load(); }

private:
    void run();
    bool startWriter(const Frame& first);
    void reportFailure();

    const QString path_;
    const MovieCodec codec_;
    const bool includesAudio_;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable room_;
    std::deque<std::shared_ptr<const Frame>> frames_;
    std::deque<std::chrono::steady_clock::time_point> queuedAt_; // one for each frame
    // Sound waiting to be encoded: a ring of interleaved stereo samples made once.
    std::vector<float> ring_;
    std::size_t ringStart_ = 0;
    std::size_t ringCount_ = 0;
    bool finishing_ = false;
    std::function<void(Outcome)> completion_;
    std::vector<MovieChapter> chapters_;
    std::function<void(const FinishedMovie&)> finished_;
    std::function<void(const CaptureError&)> failureHandler_;
    std::function<void(const MovieStart&)> startHandler_;
    std::function<void()> fallingBehindHandler_;
    // The rewrite after the stop, shared with the recorder's thread, which may outlive this
    // object when its last owner lets go inside the completion.
    struct Rewrite {
        std::atomic<bool> cancelled{false};
        std::mutex mutex;
        std::condition_variable wake;
        bool done = false;
    };
    const std::shared_ptr<Rewrite> rewrite_ = std::make_shared<Rewrite>();
    const MovieWriter::SyncStep sync_;
    ThreadCheck captureThread_;

    // Capture thread only: the movie's time line starts at the first frame.
    std::optional<double> startTime_; // seconds on the monotonic clock
    bool audioStarted_ = false;

    std::atomic<int> droppedFrames_{0};
    std::atomic<int> writtenFrames_{0};
    std::atomic<double> longestQueueWait_{0};

    // Recorder thread only.
    std::unique_ptr<MovieWriter> writer_;
    std::optional<CaptureError> failure_;
    std::int64_t lastPosition_ = -1;
    double firstFrameAt_ = 0;
    std::optional<MovieStart> start_;
    std::vector<float> audioScratch_;

    std::thread thread_;
};

} // namespace orvane
