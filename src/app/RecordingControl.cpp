#include "app/RecordingControl.h"

#include "app/AppLog.h"
#include "app/CueLog.h"
#include "app/RecordingNames.h"
#include "base/Checks.h"
#include "capture/CaptureEngine.h"
#include "settings/AppSettings.h"

#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>

#include <filesystem>
#include <memory>
#include <system_error>

Q_LOGGING_CATEGORY(lcApp, "orvane.app")

namespace orvane {

namespace {

MovieCodec movieCodec(RecordingCodec codec)
{
    switch (codec) {
    case RecordingCodec::hevc:
        return MovieCodec::hevc;
    case RecordingCodec::h264:
        return MovieCodec::h264;
    case RecordingCodec::proRes422Proxy:
        return MovieCodec::proRes422Proxy;
    }
    return MovieCodec::hevc;
}

// Makes `folder` with its missing parents; answers the system's description of a failure.
std::optional<QString> makeFolder(const QString& folder)
{
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(folder.toStdString()), error);
    if (!error && QFileInfo(folder).isDir())
        return std::nullopt;
    if (!error)
        error = std::make_error_code(std::errc::not_a_directory);
    QString text = QString::fromStdString(error.message());
    if (!text.endsWith(QLatin1Char('.')))
        text += QLatin1Char('.');
    return text;
}

} // namespace

RecordingControl::RecordingControl(AppSettings& settings, Clock& clock, QObject* parent)
    : QObject(parent)
    , settings_(settings)
    , clock_(clock)
{
}

RecordingControl::~RecordingControl()
{
    for (auto& camera : running_)
        disconnect(camera.failure);
}

QString RecordingControl::noFeedMessage()
{
    return QStringLiteral("There's no camera feed to record.");
}

bool RecordingControl::start()
{
    assertOnOwnThread(this);
    if (isRecording())
        return true;
    std::vector<Camera> cameras = cameras_ ? cameras_() : std::vector<Camera>{};
    std::erase_if(cameras, [](const Camera& camera) { return camera.engine.isNull(); });
    if (cameras.empty()) {
        Q_EMIT errorOccurred(noFeedMessage());
        return false;
    }
    if (const auto failure = makeFolder(folder_)) {
        Q_EMIT errorOccurred(
            QStringLiteral("Orvane couldn't create the recordings folder in Videos. ") + *failure);
        return false;
    }
    const QString stamp = recordingStamp(toDateTime(clock_.wallNow()).toLocalTime());
    const MovieCodec codec = movieCodec(settings_.codec());
    for (const auto& camera : cameras) {
        Running running{camera.engine, camera.label, moviePath(folder_, camera.label, stamp), {}};
        CaptureEngine* engine = camera.engine.data();
        running.failure =
            connect(engine, &CaptureEngine::recordingFailed, this,
                    [this, engine](const CaptureError& error) { cameraFailed(engine, error); });
        engine->startRecording(running.path, codec, camera.includesAudio);
        running_.push_back(std::move(running));
    }
    startedAt_ = clock_.now();
    recordingStart_ = clock_.wallNow();
    const QString mainMovie = running_.front().path;
    if (lastRecording_ != mainMovie) {
        lastRecording_ = mainMovie;
        Q_EMIT lastRecordingChanged();
    }
    cueLog_.clear();
    if (activeCue_) {
        if (const auto cue = activeCue_())
            cueLog_.append({0, timecode_ ? timecode_() : QString(), cue->event, cue->detail});
    }
    Q_EMIT recordingStartChanged();
    Q_EMIT cueLogChanged();
    return true;
}

void RecordingControl::stop(std::function<void()> done)
{
    assertOnOwnThread(this);
    if (!isRecording()) {
        if (done)
            done();
        return;
    }
    const bool writesCueLog = settings_.writesCueLog();
    const QList<CueLogEntry> log = cueLog_;
    std::vector<Running> cameras = std::move(running_);
    running_.clear();
    recordingStart_.reset();
    Q_EMIT recordingStartChanged();

    // Every camera reports once; the last report sends the summary.
    struct Pending {
        QList<Finished> finished;
        std::size_t left = 0;
        std::function<void()> done;
    };
    auto pending = std::make_shared<Pending>();
    pending->left = cameras.size();
    pending->done = std::move(done);
    finishing_ += int(cameras.size());
    QPointer<RecordingControl> self(this);
    for (auto& camera : cameras) {
        finishCamera(std::move(camera), writesCueLog, log, [self, pending](Finished finished) {
            pending->finished.append(std::move(finished));
            if (--pending->left > 0)
                return;
            if (self)
                Q_EMIT self->recordingFinished(pending->finished);
            if (pending->done)
                pending->done();
        });
    }
}

void RecordingControl::finishCamera(Running camera, bool writesCueLog, QList<CueLogEntry> log,
                                    std::function<void(Finished)> done)
{
    disconnect(camera.failure);
    if (camera.engine.isNull()) {
        --finishing_;
        done({camera.label, {}, std::nullopt});
        return;
    }
    QPointer<RecordingControl> self(this);
    camera.engine->stopRecording([self, label = camera.label, writesCueLog, log = std::move(log),
                                  done = std::move(done)](Recorder::Outcome outcome) {
        Finished finished{label, outcome, std::nullopt};
        if (outcome.movie && !outcome.error && writesCueLog) {
            const QString path = cueLogPath(*outcome.movie);
            if (const auto error = writeCueLog(path, log))
                qCWarning(lcApp, "Couldn't write cue log: %s", qPrintable(*error));
            else
                finished.cueLog = path;
        }
        if (self)
            --self->finishing_;
        done(std::move(finished));
    });
}

void RecordingControl::cameraFailed(CaptureEngine* engine, const CaptureError& error)
{
    const auto found = std::find_if(running_.begin(), running_.end(),
                                    [engine](const Running& r) { return r.engine == engine; });
    if (found == running_.end())
        return;
    Running camera = std::move(*found);
    running_.erase(found);
    QString description = error.description();
    if (!description.endsWith(QLatin1Char('.')))
        description += QLatin1Char('.');
    Q_EMIT errorOccurred(QStringLiteral("A camera stopped recording. ") + description);
    ++finishing_;
    // The failed movie keeps what was written before the failure; it gets no cue log.
    finishCamera(std::move(camera), false, {}, [](const Finished&) {});
    if (running_.empty() && recordingStart_) {
        recordingStart_.reset();
        Q_EMIT recordingStartChanged();
    }
}

void RecordingControl::toggle()
{
    if (isRecording())
        stop();
    else
        start();
}

std::optional<double> RecordingControl::elapsed() const
{
    if (!recordingStart_)
        return std::nullopt;
    return secondsBetween(startedAt_, clock_.now());
}

void RecordingControl::addMarker(const QString& text)
{
    addRow(QStringLiteral("Marker"), text);
}

void RecordingControl::logEvent(const QString& event, const QString& detail)
{
    addRow(event, detail);
}

void RecordingControl::addRow(const QString& event, const QString& detail)
{
    assertOnOwnThread(this);
    if (!recordingStart_)
        return;
    cueLog_.append({*elapsed(), timecode_ ? timecode_() : QString(), event, detail});
    Q_EMIT cueLogChanged();
}

QStringList RecordingControl::recordingPaths() const
{
    QStringList paths;
    for (const auto& camera : running_)
        paths.append(camera.path);
    return paths;
}

QString RecordingControl::showRecordings()
{
    if (lastRecording_ && QFileInfo::exists(*lastRecording_)) {
        QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(*lastRecording_).absolutePath()));
        return *lastRecording_;
    }
    makeFolder(folder_);
    QDesktopServices::openUrl(QUrl::fromLocalFile(folder_));
    return folder_;
}

} // namespace orvane
