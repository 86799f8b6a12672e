#pragma once

#include "app/ConfigurationWatcher.h"
#include "app/Configurations.h"
#include "app/CueLogEntry.h"
#include "app/EosSettings.h"
#include "app/NetworkPathMonitor.h"
#include "app/OverlayFeed.h"
#include "app/RecordingControl.h"
#include "app/RunOptions.h"
#include "app/ShowInput.h"
#include "app/SurfaceReplies.h"
#include "base/Clock.h"
#include "capture/CameraFeed.h"
#include "capture/CaptureDevices.h"
#include "capture/CaptureEngine.h"
#include "capture/FeedState.h"
#include "eos/EosConnection.h"
#include "outputs/Outputs.h"
#include "qlab/QLabBrowser.h"
#include "qlab/QLabClient.h"
#include "settings/AppSettings.h"
#include "show/DemoShow.h"
#include "show/ShowData.h"
#include "show/ShowTime.h"

#include <QImage>
#include <QObject>
#include <QSet>
#include <QSize>

#include <memory>
#include <optional>
#include <vector>

namespace orvane {

// The one object that runs Orvane: it owns the settings and every component, derives a
// plain configuration value for each component from the settings and the devices and
// applies it once at start and then once per real change, builds the overlay for every
// camera, runs recording with its cue log, and carries the one message the user must read.
// A window and the headless mode are both written against it. Main thread only.
class AppModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(std::optional<QString> errorMessage READ errorMessage NOTIFY errorMessageChanged)
    Q_PROPERTY(bool isRecording READ isRecording NOTIFY recordingStartChanged)
    Q_PROPERTY(bool isEditingLayout READ isEditingLayout WRITE setEditingLayout NOTIFY
                   isEditingLayoutChanged)

public:
    AppModel(std::unique_ptr<AppSettings> settings, RunOptions options = {},
             Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~AppModel() override;

    // Starts the watchers, loads the watermark, starts the network monitor. Runs once.
    void start();
    bool hasStarted() const { return hasStarted_; }

    // The clock that every component runs on (the window reads its moving values from it).
    Clock& clock() const { return clock_; }

    // The owned components.
    AppSettings& settings() { return *settings_; }
    CaptureDevices& devices() { return devices_; }
    ShowData& show() { return show_; }
    ShowInput& input() { return input_; }
    OverlayFeed& overlayFeed() { return overlayFeed_; }
    QLabClient& qlab() { return qlab_; }
    QLabBrowser& qlabBrowser() { return qlabBrowser_; }
    EosConnection& eos() { return eos_; }
    DemoShow& demo() { return demo_; }
    CaptureEngine& engine() { return engine_; }
    Outputs& outputs() { return outputs_; }
    RecordingControl& recording() { return recording_; }
    SurfaceReplies& replies() { return replies_; }
    NetworkPathMonitor& pathMonitor() { return pathMonitor_; }
    std::vector<CameraFeed*> extraFeeds() const;

    // Observable state.
    const FeedState& feedState() const { return feedState_; }
    std::optional<QSize> videoSize() const { return videoSize_; }
    std::optional<QString> errorMessage() const { return errorMessage_; }
    void setErrorMessage(const std::optional<QString>& message);
    void dismissError() { setErrorMessage(std::nullopt); }
    bool isEditingLayout() const { return isEditingLayout_; }
    void setEditingLayout(bool editing);
    const std::optional<QImage>& watermarkImage() const { return watermarkImage_; }
    bool isRecording() const { return recording_.isRecording(); }
    std::optional<WallTime> recordingStart() const { return recording_.recordingStart(); }
    std::optional<QString> lastRecording() const { return recording_.lastRecording(); }
    const QList<CueLogEntry>& cueLog() const { return recording_.cueLog(); }

    // Recording.
    void startRecording();
    void stopRecording(std::function<void()> done = {});
    void toggleRecording();
    void addMarker(const QString& text = QStringLiteral("Marker"));
    QString showRecordings();

    // The show.
    void toggleDemoShow();
    void clearShowData();
    // The show time now: the demo show's while it runs, else the timecode of QLab's running
    // timecode cue while connected; none otherwise.
    std::optional<ShowTime> showTimeSource() const;
    QString timecodeText() const;

    // The watermark image file (errors go to errorMessage).
    void setWatermarkImage(const QString& chosenFile);
    void clearWatermarkImage();

    // Connects QLab to a host the browser found; says so when it cannot be reached.
    void chooseQLabHost(const DiscoveredQLab& service);

    // What a control surface is answered: the recording's state and the disk left for it.
    SurfaceReplies::State surfaceState() const;
    // The bytes a second the recording writes: the running movies' real rate once they
    // show it, an estimate for the live cameras before.
    double recordingBytesPerSecond() const;

    // The recordings folder: this run's, or Videos/Orvane.
    QString recordingsFolder() const;
    static QString standardRecordingsFolder();

    // The values the watchers derive now, and how often each was applied (for tests).
    CaptureConfiguration captureConfiguration() const;
    NetworkConfiguration networkConfiguration() const;
    ExtraConfiguration extraConfiguration() const;
    OverlayUpdate overlayUpdate() const;
    struct ApplyCounts {
        int capture = 0;
        int network = 0;
        int extra = 0;
        int overlay = 0;
    };
    ApplyCounts applyCountsForTesting() const;
    // The interfaces changed (the path monitor's report).
    void networkChanged(const QStringList& interfaces);

Q_SIGNALS:
    void feedStateChanged();
    void videoSizeChanged();
    void errorMessageChanged();
    void isEditingLayoutChanged();
    void watermarkImageChanged();
    void extraFeedsChanged();
    void recordingStartChanged();
    void lastRecordingChanged();
    void cueLogChanged();
    // The listener was restarted and the Eos link told to reconnect after a network change.
    void networkRestarted(const QStringList& interfaces);

private:
    void applyCapture(const CaptureConfiguration& configuration);
    void applyNetwork(const NetworkConfiguration& configuration);
    void applyExtra(const ExtraConfiguration& configuration);
    void applyOverlay(const OverlayUpdate& update);
    void setFeedState(FeedState state);
    QString missingCameraName(const std::optional<QString>& cameraID) const;
    // Starts the recording asked for on the command line once every camera that can run does.
    void recordWhenAllLive();
    void loadWatermarkImage();
    void handleCommand(const ShowCommand& command, const ShowInput::Sender& sender);
    std::optional<QString> carryOut(const ShowCommand& command);
    void handleCueChange(const std::optional<EosCue>& cue);
    void handleQLabCues();
    std::vector<RecordingControl::Camera> recordingCameras();

    Clock& clock_;
    RunOptions options_;
    std::unique_ptr<AppSettings> settings_;
    CaptureDevices devices_;
    ShowData show_;
    ShowInput input_;
    QLabClient qlab_;
    QLabBrowser qlabBrowser_;
    EosConnection eos_;
    EosSettings* eosSettings_ = nullptr; // writes what the link adopts; a child of eos_
    DemoShow demo_;
    CaptureEngine engine_;
    Outputs outputs_;
    OverlayFeed overlayFeed_;
    RecordingControl recording_;
    SurfaceReplies replies_;
    NetworkPathMonitor pathMonitor_;
    std::vector<std::unique_ptr<CameraFeed>> extraFeeds_;

    FeedState feedState_ = FeedState::of(FeedState::Kind::unassigned);
    std::optional<QSize> videoSize_;
    std::optional<QString> errorMessage_;
    bool isEditingLayout_ = false;
    std::optional<QImage> watermarkImage_;
    bool hasStarted_ = false;
    bool recordWhenLive_ = false;
    int captureGeneration_ = 0;
    QSet<QString> runningQLabCues_;
    std::optional<QString> commandFailure_; // for the answer to the command's sender

    ConfigurationWatcher<CaptureConfiguration> captureWatcher_;
    ConfigurationWatcher<NetworkConfiguration> networkWatcher_;
    ConfigurationWatcher<ExtraConfiguration> extraWatcher_;
    ConfigurationWatcher<OverlayUpdate> overlayWatcher_;
};

} // namespace orvane
