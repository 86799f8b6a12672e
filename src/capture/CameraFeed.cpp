#include "capture/CameraFeed.h"

#include "base/Checks.h"

namespace orvane {

CameraFeed::CameraFeed(QUuid id, Clock& clock, QObject* parent)
    : QObject(parent)
    , id_(id)
    , engine_(clock, this)
{
    connect(&engine_, &CaptureEngine::framesStarted, this, [this](QSize size) {
        if (videoSize_ != size) {
            videoSize_ = size;
            Q_EMIT videoSizeChanged();
        }
        if (state_.kind == FeedState::Kind::starting)
            setState(FeedState::of(FeedState::Kind::live));
    });
    connect(&engine_, &CaptureEngine::recordingStarted, this, &CameraFeed::recordingStarted);
}

void CameraFeed::apply(const Feed& feed, bool isAuthorized)
{
    assertOnOwnThread(this);
    engine_.setMirrored(feed.isMirrored);
    if (!isAuthorized || !feed.deviceID) {
        // No picture is captured, shown or recorded from a camera the feed may not use; the
        // same camera is opened again when it may.
        closeCamera();
        return setState(
            FeedState::of(isAuthorized ? FeedState::Kind::unassigned : FeedState::Kind::noAccess));
    }
    if (!feed.isAvailable) {
        // The device is gone: its input is closed, and opened anew when it comes back.
        closeCamera();
        configuredDevice_.reset();
        return setState(
            FeedState::disconnected(feed.deviceName.value_or(QStringLiteral("The camera"))));
    }
    if (configuredDevice_ && *configuredDevice_ == feed.deviceID)
        return;
    configuredDevice_ = feed.deviceID;
    // Starting from now: the camera is being opened (a recording asked for on the command line
    // waits for it).
    if (state_.kind != FeedState::Kind::live)
        setState(FeedState::of(FeedState::Kind::starting));
    const int generation = ++configureGeneration_;
    engine_.configure(feed.deviceID, std::nullopt, [this, generation](auto error) {
        if (generation != configureGeneration_)
            return; // a later apply superseded this one
        if (error) {
            configuredDevice_.reset(); // tried again at the next apply
            setState(FeedState::failed(error->description()));
        } else if (state_.kind != FeedState::Kind::live) {
            setState(FeedState::of(FeedState::Kind::starting));
        }
    });
}

void CameraFeed::closeCamera()
{
    if (configuredDevice_ && !*configuredDevice_)
        return; // closed already
    ++configureGeneration_;
    configuredDevice_ = std::optional<QString>();
    engine_.configure(std::nullopt, std::nullopt);
}

void CameraFeed::startRecording(const QString& path, MovieCodec codec)
{
    assertOnOwnThread(this);
    engine_.startRecording(path, codec, false);
}

void CameraFeed::stopRecording(std::vector<MovieChapter> chapters,
                               std::function<void(Recorder::Outcome)> done)
{
    assertOnOwnThread(this);
    engine_.stopRecording(std::move(chapters), std::move(done));
}

void CameraFeed::stop()
{
    assertOnOwnThread(this);
    closeCamera();
}

void CameraFeed::setState(FeedState state)
{
    if (state == state_)
        return;
    state_ = std::move(state);
    Q_EMIT stateChanged();
}

} // namespace orvane
