#pragma once

#include "base/Clock.h"
#include "capture/CaptureEngine.h"
#include "capture/Feed.h"
#include "capture/FeedState.h"

#include <QObject>
#include <QSize>
#include <QUuid>

#include <optional>

namespace orvane {

// One extra camera: its own capture engine, its state as the window shows it and its own
// recorder, which never records sound. Main thread only.
class CameraFeed : public QObject {
    Q_OBJECT

public:
    explicit CameraFeed(QUuid id, Clock& clock = Clock::system(), QObject* parent = nullptr);

    QUuid id() const { return id_; }
    CaptureEngine& engine() { return engine_; }
    const FeedState& state() const { return state_; }
    std::optional<QSize> videoSize() const { return videoSize_; }
    // The device last applied to the engine: none before the first, and after the device
    // went away.
    const std::optional<std::optional<QString>>& configuredDevice() const
    {
        return configuredDevice_;
    }

    // Brings the feed in line with `feed`; `isAuthorized`: camera access is granted.
    void apply(const Feed& feed, bool isAuthorized);

    void setOverlay(const OverlayContent& content, const QString& label)
    {
        engine_.setOverlay(content, label);
    }

    void startRecording(const QString& path, MovieCodec codec);
    // See CaptureEngine::stopRecording().
    void stopRecording(std::vector<MovieChapter> chapters,
                       std::function<void(Recorder::Outcome)> done);
    void stopRecording(std::function<void(Recorder::Outcome)> done)
    {
        stopRecording({}, std::move(done));
    }
    // The running movie's time zero, once its first frame is written.
    std::optional<MovieStart> recordingStart() const { return engine_.recordingStart(); }
    // Stops the camera for good (the extra camera was removed).
    void stop();

Q_SIGNALS:
    void stateChanged();
    void videoSizeChanged();
    // The running movie's time zero is known (see CaptureEngine::recordingStarted()).
    void recordingStarted(const orvane::MovieStart& start);

private:
    void setState(FeedState state);
    void closeCamera();

    QUuid id_;
    CaptureEngine engine_;
    FeedState state_ = FeedState::of(FeedState::Kind::unassigned);
    std::optional<QSize> videoSize_;
    std::optional<std::optional<QString>> configuredDevice_;
    int configureGeneration_ = 0;
};

} // namespace orvane
