#pragma once

#include "base/Checks.h"
#include "base/Clock.h"
#include "base/Latest.h"
#include "capture/CaptureStats.h"
#include "capture/Recorder.h"
#include "overlay/OverlayContent.h"

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace orvane {

class AudioSource;
class FramePool;
class OverlayRenderer;
class FrameSink;
class VideoSource;
struct AudioBuffer;
struct Frame;

// What happens to every picture and every sound buffer of one camera: the picture is taken
// into a buffer of the camera's pool, stamped with its moment of capture, mirrored, overlaid
// in place, counted, and shared read-only with the preview, the recorder and the frame sinks;
// sound is amplified, measured and handed to the recorder. A plain object: the capture
// engine runs it on its capture thread, and a test steps it one frame at a time on a
// ManualClock. capture*() and setRecorder() on the capture thread (the one that made it or
// last called bindCaptureThread()); the rest from any thread.
class CapturePipeline {
public:
    // The frames each consumer may hold at once: the preview its newest, each frame sink
    // (the web viewer, NDI) one it is working on and the newest waiting.
    static constexpr int kPreviewFrames = 1;
    static constexpr int kFramesPerSink = 2;
    static constexpr int kSinks = 2;
    // A camera's pool: the frame being captured, and enough for the recorder, the preview and
    // the sinks at their busiest; made when the camera starts, never grown. A frame that
    // finds it empty is lost and counted.
    static constexpr int kPoolFrames =
        1 + kPreviewFrames + kFramesPerSink * kSinks + Recorder::kHeldFrames;

    explicit CapturePipeline(Clock& clock);
    ~CapturePipeline();

    // The calling thread becomes the capture thread.
    void bindCaptureThread() { captureThread_.rebind(); }

    // Takes the picture waiting in `source` (after its waitForFrame() said frameReady).
    // Returns the composited frame, or nullptr when it was dropped.
    std::shared_ptr<const Frame> captureFrame(VideoSource& source);
    // Applies the gain to `buffer` in place, measures it and records it.
    void captureAudio(AudioBuffer& buffer);

    // What the overlay shows from the next frame on; none draws nothing.
    void setOverlay(std::shared_ptr<const OverlayContent> content)
    {
        overlay_.publish(std::move(content));
    }

    void setMirrored(bool mirrored) { mirrored_ = mirrored; }
    bool isMirrored() const { return mirrored_; }
    void setGain(float gain) { gain_ = gain; }
    float gain() const { return gain_; }

    void addSink(std::shared_ptr<FrameSink> sink);
    void removeSink(const FrameSink* sink);

    // The recorder that frames and sound go to, or none. Returns the previous one.
    std::shared_ptr<Recorder> setRecorder(std::shared_ptr<Recorder> recorder);
    const std::shared_ptr<Recorder>& recorder() const { return recorder_; }

    CaptureStats stats() const;
    // The newest composited frame, for the preview.
    std::shared_ptr<const Frame> latestFrame() const { return preview_.get(); }
    // Forgets the frame rate and sound levels when a device goes away.
    void resetStats();

    // How old a frame presented at `presentedAt` is at `now`: 0 when unknown or in the
    // future, at most 1 second.
    static double frameAge(Instant now, std::optional<Instant> presentedAt);
    // The average power of each channel of `buffer` in dBFS (-160 for silence).
    static std::vector<float> levels(const AudioBuffer& buffer);

private:
    void publishStats(int width, int height);

    Clock& clock_;
    ThreadCheck captureThread_;
    std::unique_ptr<FramePool> pool_;
    Latest<OverlayContent> overlay_;
    std::unique_ptr<OverlayRenderer> renderer_; // made on the first frame with an overlay
    std::atomic<bool> mirrored_{false};
    std::atomic<float> gain_{1.0f};
    std::deque<Instant> frameTimes_;
    int droppedFrames_ = 0;
    int droppedByFinishedRecorders_ = 0;
    std::shared_ptr<Recorder> recorder_;

    mutable std::mutex statsMutex_;
    CaptureStats stats_;
    Latest<std::vector<std::shared_ptr<FrameSink>>> sinks_;
    std::mutex sinksEditMutex_; // serialises add and remove, never held by the capture thread
    Latest<Frame> preview_;
};

} // namespace orvane
