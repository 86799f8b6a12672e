#include "app/AppModel.h"

#include "app/AppLog.h"
#include "app/EosSettings.h"
#include "app/RecordingNames.h"
#include "app/RecordingRecovery.h"
#include "app/ShowEvents.h"
#include "capture/TestPatternSource.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace orvane {

namespace {

bool isAuthorized(CaptureDevices::Authorization authorization)
{
    switch (authorization) {
    case CaptureDevices::Authorization::restricted:
    case CaptureDevices::Authorization::denied:
        return false;
    case CaptureDevices::Authorization::notDetermined:
    case CaptureDevices::Authorization::authorized:
        return true;
    }
    return true;
}

bool isRealCamera(const CaptureSource& source)
{
    return source.id != TestPatternSource::kID;
}

} // namespace

AppModel::AppModel(std::unique_ptr<AppSettings> settings, RunOptions options, Clock& clock,
                   QObject* parent)
    : QObject(parent)
    , clock_(clock)
    , options_(std::move(options))
    , settings_(std::move(settings))
    , devices_(QStringLiteral("/dev"), this)
    , show_(clock, this)
    , input_(show_, clock, this)
    , qlab_(clock, this)
    , qlabBrowser_(clock, this)
    , eos_(clock, this)
    , demo_(input_.demoDelivery(), clock, this)
    , engine_(clock, this)
    , outputs_(clock)
    , overlayFeed_(show_, clock, this)
    , recording_(*settings_, clock, this)
    , replies_([this] { return surfaceState(); },
               [this](const QByteArray& datagram, const QHostAddress& address, quint16 port) {
                   return input_.listener().send(datagram, address, port);
               },
               clock, this)
    , pathMonitor_(clock, this)
    , captureWatcher_([this] { return captureConfiguration(); },
                      [this](const CaptureConfiguration& c) { applyCapture(c); })
    , networkWatcher_([this] { return networkConfiguration(); },
                      [this](const NetworkConfiguration& c) { applyNetwork(c); })
    , extraWatcher_([this] { return extraConfiguration(); },
                    [this](const ExtraConfiguration& c) { applyExtra(c); })
    , overlayWatcher_([this] { return overlayUpdate(); },
                      [this](const OverlayUpdate& u) { applyOverlay(u); })
{
    eosSettings_ = new EosSettings(eos_, *settings_); // a child of the link
    outputs_.setParent(this);
    engine_.addSink(outputs_.sink());
    recording_.setFolder(recordingsFolder());
    recording_.setCameras([this] { return recordingCameras(); });
    recording_.setTimecode([this] { return timecodeText(); });
    recording_.setActiveCue([this]() -> std::optional<RecordingControl::CueRow> {
        const auto row = cueChangeRow(show_.activeCue());
        if (!row)
            return std::nullopt;
        return RecordingControl::CueRow{row->event, row->detail};
    });
    connect(&recording_, &RecordingControl::errorOccurred, this,
            [this](const QString& message) { setErrorMessage(message); });
    connect(&recording_, &RecordingControl::recordingStartChanged, this,
            &AppModel::recordingStartChanged);
    connect(&recording_, &RecordingControl::lastRecordingChanged, this,
            &AppModel::lastRecordingChanged);
    connect(&recording_, &RecordingControl::cueLogChanged, this, &AppModel::cueLogChanged);

    input_.setOnCommand([this](const ShowCommand& command, const ShowInput::Sender& sender) {
        handleCommand(command, sender);
    });
    input_.setOnAnswerOwed([this](const ShowInput::Sender& sender) {
        replies_.answer(sender.address, sender.port, std::exchange(commandFailure_, std::nullopt));
    });
    connect(&recording_, &RecordingControl::recordingStartChanged, &replies_,
            &SurfaceReplies::tellAll);
    input_.takePacketsFrom(eos_);
    show_.setOnCueChange([this](const std::optional<EosCue>& cue) { handleCueChange(cue); });
    qlab_.setOnRunningCuesChanged([this] { handleQLabCues(); });
    overlayFeed_.setQLab(&qlab_);
    overlayFeed_.setDemoShow(&demo_);

    connect(&engine_, &CaptureEngine::framesStarted, this, [this](QSize size) {
        if (videoSize_ != size) {
            videoSize_ = size;
            Q_EMIT videoSizeChanged();
        }
        if (feedState_.kind == FeedState::Kind::starting)
            setFeedState(FeedState::of(FeedState::Kind::live));
    });
    connect(&engine_, &CaptureEngine::cameraLost, this, [this] {
        setFeedState(FeedState::disconnected(missingCameraName(settings_->cameraID())));
        devices_.refresh();
    });
    connect(&pathMonitor_, &NetworkPathMonitor::interfacesChanged, this, &AppModel::networkChanged);
    // Mirroring the main camera and the microphone's gain apply at once, without reopening.
    const auto applyMirrorAndGain = [this] {
        engine_.setMirrored(settings_->isMirrored());
        engine_.setGain(float(settings_->audioGain()));
    };
    connect(settings_.get(), &AppSettings::isMirroredChanged, this, applyMirrorAndGain);
    connect(settings_.get(), &AppSettings::audioGainChanged, this, applyMirrorAndGain);
    applyMirrorAndGain();

    // What each value is made from: a change of any of these makes the watcher look again.
    captureWatcher_.watch(settings_.get(), &AppSettings::cameraIDChanged, this);
    captureWatcher_.watch(settings_.get(), &AppSettings::audioDeviceIDChanged, this);
    captureWatcher_.watch(settings_.get(), &AppSettings::recordsAudioChanged, this);
    captureWatcher_.watch(&devices_, &CaptureDevices::camerasChanged, this);
    captureWatcher_.watch(&devices_, &CaptureDevices::cameraAuthorizationChanged, this);

    for (const auto signal :
         {&AppSettings::oscEnabledChanged,       &AppSettings::oscPortChanged,
          &AppSettings::eosEnabledChanged,       &AppSettings::eosHostChanged,
          &AppSettings::eosFramingChanged,       &AppSettings::eosPortChanged,
          &AppSettings::eosNetworkChanged,       &AppSettings::eosAutoConnectChanged,
          &AppSettings::eosConsoleIDChanged,     &AppSettings::eosConsoleNameChanged,
          &AppSettings::watchedAddressesChanged, &AppSettings::qlabEnabledChanged,
          &AppSettings::qlabHostChanged,         &AppSettings::qlabPortChanged,
          &AppSettings::qlabPasscodeChanged,     &AppSettings::qlabWorkspaceChanged,
          &AppSettings::ndiEnabledChanged,       &AppSettings::ndiNameChanged,
          &AppSettings::webViewerEnabledChanged, &AppSettings::webViewerPortChanged})
        networkWatcher_.watch(settings_.get(), signal, this);

    extraWatcher_.watch(settings_.get(), &AppSettings::extraCamerasChanged, this);
    extraWatcher_.watch(&devices_, &CaptureDevices::camerasChanged, this);
    extraWatcher_.watch(&devices_, &CaptureDevices::cameraAuthorizationChanged, this);

    for (const auto signal :
         {&AppSettings::overlayEnabledChanged, &AppSettings::overlayScaleChanged,
          &AppSettings::overlayOpacityChanged, &AppSettings::cameraLabelChanged,
          &AppSettings::showsTimecodeChanged, &AppSettings::showsCueChanged,
          &AppSettings::showsNextCueChanged, &AppSettings::showsShowNameChanged,
          &AppSettings::showsFieldsChanged, &AppSettings::showsDateChanged,
          &AppSettings::showsClockChanged, &AppSettings::showsQLabCuesChanged,
          &AppSettings::overlayLayoutChanged, &AppSettings::watermarkTextChanged,
          &AppSettings::watermarkOpacityChanged, &AppSettings::extraCamerasChanged})
        overlayWatcher_.watch(settings_.get(), signal, this);
    overlayWatcher_.watch(this, &AppModel::recordingStartChanged, this);
    overlayWatcher_.watch(this, &AppModel::watermarkImageChanged, this);
    overlayWatcher_.watch(this, &AppModel::extraFeedsChanged, this);
}

AppModel::~AppModel()
{
    pathMonitor_.stop();
    input_.setOnCommand({});
    input_.setOnAnswerOwed({});
    show_.setOnCueChange({});
    qlab_.setOnRunningCuesChanged({});
}

void AppModel::start()
{
    assertOnOwnThread(this);
    if (hasStarted_)
        return;
    hasStarted_ = true;
    if (const auto damaged = settings_->damagedFileMessage())
        setErrorMessage(*damaged);
    devices_.refresh();
    captureWatcher_.start();
    networkWatcher_.start();
    extraWatcher_.start();
    overlayWatcher_.start();
    loadWatermarkImage();
    pathMonitor_.start();
    // Recordings that a crash cut off are finished in the background; the window shows
    // what became of them, and headless mode prints it.
    recoverRecordingsInBackground(recordingsFolder(), this, [this](const RecoveryReport& report) {
        if (!report.sentences().isEmpty())
            setErrorMessage(report.sentences().join(QLatin1Char(' ')));
    });
    if (options_.demo && !demo_.isRunning())
        demo_.start();
    if (options_.record) {
        recordWhenLive_ = true;
        recordWhenAllLive();
    }
}

void AppModel::recordWhenAllLive()
{
    if (!recordWhenLive_ || feedState_.kind != FeedState::Kind::live)
        return;
    // Extra cameras still opening are waited for, so that the recording takes every camera;
    // one that cannot open (absent, refused, failed) does not hold it back.
    for (const auto& feed : extraFeeds_) {
        if (feed->state().kind == FeedState::Kind::starting)
            return;
    }
    recordWhenLive_ = false;
    startRecording();
}

std::vector<CameraFeed*> AppModel::extraFeeds() const
{
    std::vector<CameraFeed*> feeds;
    for (const auto& feed : extraFeeds_)
        feeds.push_back(feed.get());
    return feeds;
}

// Configuration values

QString AppModel::missingCameraName(const std::optional<QString>& cameraID) const
{
    // A camera seen earlier in this run keeps its name; one never seen is just "the camera".
    if (cameraID) {
        if (auto name = devices_.lastKnownCameraName(*cameraID))
            return *name;
    }
    return QStringLiteral("The camera");
}

CaptureConfiguration AppModel::captureConfiguration() const
{
    CaptureConfiguration configuration;
    const auto& cameras = devices_.cameras();
    configuration.cameraAuthorization = devices_.cameraAuthorization();
    configuration.hasCameras = std::any_of(cameras.begin(), cameras.end(), isRealCamera);
    configuration.cameraID = settings_->cameraID();
    // With no camera attached and none chosen, the test pattern runs, so that the whole
    // road (overlay, recording, outputs) works on any machine.
    if (!configuration.cameraID && !configuration.hasCameras)
        configuration.cameraID = TestPatternSource::kID;
    if (configuration.cameraID &&
        std::none_of(
            cameras.begin(), cameras.end(),
            [&](const CaptureSource& source) { return source.id == *configuration.cameraID; }) &&
        !TestPatternSource::isTestPattern(*configuration.cameraID))
        configuration.missingCameraName = missingCameraName(configuration.cameraID);
    if (settings_->recordsAudio())
        configuration.microphoneID = settings_->audioDeviceID();
    return configuration;
}

NetworkConfiguration AppModel::networkConfiguration() const
{
    NetworkConfiguration configuration;
    configuration.oscEnabled = settings_->oscEnabled();
    configuration.oscPort = settings_->oscPort();
    configuration.eos = eosConfiguration(*settings_);
    configuration.watched = settings_->watchedAddresses();
    configuration.qlabEnabled = settings_->qlabEnabled();
    configuration.qlabHost = settings_->qlabHost().trimmed();
    configuration.qlabPort = settings_->qlabPort();
    configuration.qlabPasscode = settings_->qlabPasscode();
    configuration.qlabWorkspace = settings_->qlabWorkspace();
    configuration.outputs.ndiEnabled = settings_->ndiEnabled();
    configuration.outputs.ndiName = settings_->ndiName();
    configuration.outputs.webEnabled =
        settings_->webViewerEnabled() || options_.web || options_.webPort.has_value();
    configuration.outputs.webPort = options_.webPort.value_or(settings_->webViewerPort());
    return configuration;
}

ExtraConfiguration AppModel::extraConfiguration() const
{
    ExtraConfiguration configuration;
    configuration.isAuthorized = isAuthorized(devices_.cameraAuthorization());
    const auto& cameras = devices_.cameras();
    for (const auto& camera : settings_->extraCameras()) {
        Feed feed;
        feed.id = camera.id;
        feed.deviceID = camera.deviceID;
        feed.deviceName = camera.deviceName;
        feed.isMirrored = camera.isMirrored;
        feed.isAvailable = camera.deviceID &&
                           (TestPatternSource::isTestPattern(*camera.deviceID) ||
                            std::any_of(cameras.begin(), cameras.end(),
                                        [&](const auto& c) { return c.id == *camera.deviceID; }));
        configuration.feeds.push_back(std::move(feed));
    }
    return configuration;
}

OverlayUpdate AppModel::overlayUpdate() const
{
    OverlayUpdate update;
    update.look = settings_->currentLook();
    update.isEnabled = settings_->overlayEnabled();
    update.recordingStart = recording_.recordingStart();
    update.watermarkKey = watermarkImage_ ? watermarkImage_->cacheKey() : 0;
    update.labels.insert(QUuid(), settings_->cameraLabel());
    for (const auto& camera : settings_->extraCameras())
        update.labels.insert(camera.id, camera.label);
    return update;
}

AppModel::ApplyCounts AppModel::applyCountsForTesting() const
{
    return {captureWatcher_.applyCount(), networkWatcher_.applyCount(), extraWatcher_.applyCount(),
            overlayWatcher_.applyCount()};
}

// Applying them

void AppModel::applyCapture(const CaptureConfiguration& configuration)
{
    const int generation = ++captureGeneration_;
    if (!isAuthorized(configuration.cameraAuthorization)) {
        engine_.configure(std::nullopt, std::nullopt);
        return setFeedState(FeedState::of(FeedState::Kind::noAccess));
    }
    if (!configuration.cameraID) {
        engine_.configure(std::nullopt, configuration.microphoneID);
        return setFeedState(FeedState::of(configuration.hasCameras ? FeedState::Kind::unassigned
                                                                   : FeedState::Kind::noCameras));
    }
    if (configuration.missingCameraName) {
        engine_.configure(std::nullopt, configuration.microphoneID);
        return setFeedState(FeedState::disconnected(*configuration.missingCameraName));
    }
    if (feedState_.kind != FeedState::Kind::live)
        setFeedState(FeedState::of(FeedState::Kind::starting));
    engine_.configure(configuration.cameraID, configuration.microphoneID,
                      [this, generation](std::optional<CaptureError> error) {
                          if (generation != captureGeneration_ || !error)
                              return;
                          // A missing microphone leaves the picture running.
                          if (error->kind == CaptureError::Kind::microphoneUnavailable)
                              return setErrorMessage(error->description());
                          setFeedState(FeedState::failed(error->description()));
                      });
}

void AppModel::applyNetwork(const NetworkConfiguration& configuration)
{
    input_.listener().configure(configuration.oscEnabled, configuration.oscPort);
    show_.setWatchedAddresses(configuration.watched);
    QLabClient::Settings qlab;
    qlab.isEnabled = configuration.qlabEnabled;
    qlab.host =
        configuration.qlabHost.isEmpty() ? QStringLiteral("localhost") : configuration.qlabHost;
    qlab.port = configuration.qlabPort;
    qlab.passcode = configuration.qlabPasscode;
    qlab.preferredWorkspace = configuration.qlabWorkspace;
    if (!(qlab_.settings() == qlab))
        qlab_.apply(qlab);
    if (eos_.configuration() != configuration.eos)
        eos_.apply(configuration.eos);
    if (outputs_.configuration() != configuration.outputs)
        outputs_.apply(configuration.outputs);
}

void AppModel::applyExtra(const ExtraConfiguration& configuration)
{
    bool changed = false;
    // Feeds whose camera was removed stop and go.
    for (auto it = extraFeeds_.begin(); it != extraFeeds_.end();) {
        const QUuid id = (*it)->id();
        if (std::none_of(configuration.feeds.begin(), configuration.feeds.end(),
                         [&](const Feed& feed) { return feed.id == id; })) {
            (*it)->stop();
            overlayFeed_.removeCamera((*it)->engine());
            it = extraFeeds_.erase(it);
            changed = true;
        } else {
            ++it;
        }
    }
    std::vector<std::unique_ptr<CameraFeed>> ordered;
    for (const auto& feed : configuration.feeds) {
        auto found = std::find_if(extraFeeds_.begin(), extraFeeds_.end(),
                                  [&](const auto& f) { return f && f->id() == feed.id; });
        std::unique_ptr<CameraFeed> cameraFeed;
        if (found != extraFeeds_.end()) {
            cameraFeed = std::move(*found);
        } else {
            cameraFeed = std::make_unique<CameraFeed>(feed.id, clock_);
            connect(cameraFeed.get(), &CameraFeed::stateChanged, this,
                    &AppModel::recordWhenAllLive);
            changed = true;
        }
        cameraFeed->apply(feed, configuration.isAuthorized);
        ordered.push_back(std::move(cameraFeed));
    }
    extraFeeds_ = std::move(ordered);
    if (changed)
        Q_EMIT extraFeedsChanged();
    recordWhenAllLive();
}

void AppModel::applyOverlay(const OverlayUpdate& update)
{
    overlayFeed_.setLook(update.look);
    overlayFeed_.setEnabled(update.isEnabled);
    overlayFeed_.setRecordingStart(update.recordingStart);
    overlayFeed_.setWatermarkImage(watermarkImage_);
    overlayFeed_.addCamera(engine_, update.labels.value(QUuid()));
    for (const auto& feed : extraFeeds_)
        overlayFeed_.addCamera(feed->engine(), update.labels.value(feed->id()));
    overlayFeed_.refresh();
}

void AppModel::setFeedState(FeedState state)
{
    if (state == feedState_)
        return;
    feedState_ = std::move(state);
    Q_EMIT feedStateChanged();
    recordWhenAllLive();
}

void AppModel::setErrorMessage(const std::optional<QString>& message)
{
    if (message == errorMessage_)
        return;
    errorMessage_ = message;
    Q_EMIT errorMessageChanged();
}

void AppModel::setEditingLayout(bool editing)
{
    if (editing == isEditingLayout_)
        return;
    isEditingLayout_ = editing;
    Q_EMIT isEditingLayoutChanged();
}

// Recording

std::vector<RecordingControl::Camera> AppModel::recordingCameras()
{
    std::vector<RecordingControl::Camera> cameras;
    if (feedState_.kind == FeedState::Kind::live)
        cameras.push_back({&engine_, recordingLabel(settings_->cameraLabel(), mainCameraFallback()),
                           settings_->recordsAudio()});
    const auto configured = settings_->extraCameras();
    for (const auto& feed : extraFeeds_) {
        // A camera still opening records from its first picture: a recording started a
        // moment before it is live still takes it.
        const auto kind = feed->state().kind;
        if (kind != FeedState::Kind::live && kind != FeedState::Kind::starting)
            continue;
        const auto index = std::find_if(configured.begin(), configured.end(),
                                        [&](const ExtraCamera& c) { return c.id == feed->id(); });
        if (index == configured.end())
            continue;
        cameras.push_back(
            {&feed->engine(),
             recordingLabel(index->label, extraCameraFallback(int(index - configured.begin()))),
             false});
    }
    return cameras;
}

void AppModel::startRecording()
{
    recording_.start();
}

void AppModel::stopRecording(std::function<void()> done)
{
    recording_.stop(std::move(done));
}

void AppModel::toggleRecording()
{
    if (isRecording())
        stopRecording();
    else
        startRecording();
}

void AppModel::addMarker(const QString& text)
{
    recording_.addMarker(text);
}

QString AppModel::showRecordings()
{
    return recording_.showRecordings();
}

SurfaceReplies::State AppModel::surfaceState() const
{
    SurfaceReplies::State state;
    state.isRecording = isRecording();
    state.elapsed = recording_.elapsed().value_or(0);
    const QStringList running = recording_.recordingPaths();
    if (const auto movie = running.isEmpty() ? lastRecording() : running.front())
        state.movie = QFileInfo(*movie).fileName();
    if (const auto free = freeBytesAt(recordingsFolder()))
        state.minutesLeft = minutesOfDisk(*free, recordingBytesPerSecond());
    return state;
}

double AppModel::recordingBytesPerSecond() const
{
    // The first seconds of a movie are mostly its header and the encoder filling up.
    constexpr double kMeasureAfterSeconds = 5;
    if (const auto elapsed = recording_.elapsed(); elapsed && *elapsed >= kMeasureAfterSeconds) {
        qint64 written = 0;
        for (const QString& path : recording_.recordingPaths())
            written += QFileInfo(path).size();
        if (written > 0)
            return double(written) / *elapsed;
    }
    const RecordingCodec codec = settings_->codec();
    const auto estimate = [codec](const CaptureEngine& engine) {
        const double rate = engine.stats().framesPerSecond;
        return estimatedBytesPerSecond(codec, engine.videoSize(), rate >= 1 ? rate : 30);
    };
    double rate = 0;
    if (feedState_.kind == FeedState::Kind::live)
        rate += estimate(engine_);
    for (const auto& feed : extraFeeds_)
        if (feed->state().kind == FeedState::Kind::live)
            rate += estimate(feed->engine());
    // No camera yet: one camera in full HD.
    return rate > 0 ? rate : estimatedBytesPerSecond(codec, QSize(1920, 1080), 30);
}

QString AppModel::recordingsFolder() const
{
    return options_.recordingsFolder.value_or(standardRecordingsFolder());
}

QString AppModel::standardRecordingsFolder()
{
    return QDir(QStandardPaths::writableLocation(QStandardPaths::MoviesLocation))
        .filePath(QStringLiteral("Orvane"));
}

// The show

void AppModel::handleCommand(const ShowCommand& command, const ShowInput::Sender& sender)
{
    const std::optional<QString> failure = carryOut(command);
    // A surface that sent it is answered with the sentence (ShowInput owes it an answer).
    if (sender.port != 0 && failure)
        commandFailure_ = failure;
}

std::optional<QString> AppModel::carryOut(const ShowCommand& command)
{
    std::optional<QString> failure;
    const auto watch = connect(&recording_, &RecordingControl::errorOccurred, this,
                               [&failure](const QString& message) { failure = message; });
    switch (command.kind) {
    case ShowCommand::Kind::marker:
        if (!isRecording())
            failure = QStringLiteral("Orvane isn't recording, so the marker wasn't added.");
        addMarker(command.text);
        break;
    case ShowCommand::Kind::layout:
        if (!settings_->applyLayoutPreset(command.text))
            failure = QStringLiteral("There's no saved layout named “%1”.").arg(command.text);
        break;
    case ShowCommand::Kind::startRecording:
        startRecording();
        break;
    case ShowCommand::Kind::stopRecording:
        stopRecording();
        break;
    case ShowCommand::Kind::toggleRecording:
        toggleRecording();
        break;
    }
    disconnect(watch);
    return failure;
}

void AppModel::handleCueChange(const std::optional<EosCue>& cue)
{
    if (const auto row = cueChangeRow(cue))
        recording_.logEvent(row->event, row->detail);
}

void AppModel::handleQLabCues()
{
    for (const auto& row : qlabStartRows(runningQLabCues_, qlab_.runningCues()))
        recording_.logEvent(row.event, row.detail);
}

void AppModel::toggleDemoShow()
{
    if (!demo_.isRunning())
        return demo_.start();
    demo_.stop();
    if (eos_.isConnected())
        eos_.stream().send(OSCMessage{"/eos/reset", {}});
}

void AppModel::clearShowData()
{
    show_.clear();
}

std::optional<ShowTime> AppModel::showTimeSource() const
{
    if (demo_.isRunning() && demo_.showTime())
        return demo_.showTime();
    if (qlab_.state() == QLabClient::State::connected && qlab_.timecodeCue())
        return qlab_.showTime(clock_.wallNow());
    return std::nullopt;
}

QString AppModel::timecodeText() const
{
    const auto time = showTimeSource();
    if (!time)
        return {};
    return ShowTime::format(time->secondsAt(clock_.wallNow()), time->framesPerSecond);
}

// The watermark

void AppModel::loadWatermarkImage()
{
    std::optional<QImage> image;
    if (const auto path = settings_->watermarkImagePath()) {
        QImage loaded(*path);
        if (!loaded.isNull())
            image = std::move(loaded);
    }
    if (image.has_value() == watermarkImage_.has_value() &&
        (!image || image->cacheKey() == watermarkImage_->cacheKey()))
        return;
    watermarkImage_ = std::move(image);
    Q_EMIT watermarkImageChanged();
}

void AppModel::setWatermarkImage(const QString& chosenFile)
{
    if (QImage(chosenFile).isNull()) {
        return setErrorMessage(QStringLiteral("Orvane couldn't read “") +
                               QFileInfo(chosenFile).fileName() +
                               QStringLiteral("” as an image. Try a PNG or JPEG."));
    }
    if (const auto error = settings_->setWatermarkImage(chosenFile))
        return setErrorMessage(*error);
    loadWatermarkImage();
}

void AppModel::clearWatermarkImage()
{
    settings_->clearWatermarkImage();
    loadWatermarkImage();
}

// QLab hosts

void AppModel::chooseQLabHost(const DiscoveredQLab& service)
{
    QPointer<AppModel> self(this);
    qlabBrowser_.resolve(service, [self, service](std::optional<QLabBrowser::Resolved> resolved) {
        if (!self)
            return;
        if (!resolved) {
            self->setErrorMessage(QStringLiteral("Orvane couldn't reach QLab on “") + service.name +
                                  QStringLiteral("”. Check that QLab is open and that both "
                                                 "computers are on the same network."));
            return;
        }
        self->settings_->setQlabHost(resolved->host);
        self->settings_->setQlabPort(resolved->port);
        self->settings_->setQlabEnabled(true);
    });
}

// The network

void AppModel::networkChanged(const QStringList& interfaces)
{
    qCInfo(lcApp, "Network changed: %s", qPrintable(interfaces.join(QStringLiteral(", "))));
    auto& stream = eos_.stream();
    if (const auto target = stream.target()) {
        stream.disconnect();
        stream.connectTo(*target);
    }
    const auto network = networkConfiguration();
    input_.listener().configure(false, network.oscPort);
    input_.listener().configure(network.oscEnabled, network.oscPort);
    Q_EMIT networkRestarted(interfaces);
}

} // namespace orvane
