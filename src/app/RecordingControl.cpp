#include "app/RecordingControl.h"

#include "app/AppLog.h"
#include "app/CueLog.h"
#include "app/MarkerLists.h"
#include "app/RecordingJournal.h"
#include "app/RecordingNames.h"
#include "app/Sentence.h"
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
    return sentence(QString::fromStdString(error.message()));
}

} // namespace

// A recording's journal, kept until every movie of the recording is finished with its
// chapters; a movie left as it was written (Orvane quit during the rewrite, or the disk had no
// room for the rewrite) keeps it, so that the next start finishes the movie.
struct RecordingControl::Journal {
    std::unique_ptr<RecordingJournal> file;
    bool stopped = false;
    int finishing = 0; // movies not yet given their chapters
    bool keep = false;
    // The recording is over, said in the file too: a later recovery then knows it was
    // stopped, not cut off.
    void stop()
    {
        stopped = true;
        if (file)
            file->addStop();
    }
    void settle()
    {
        if (stopped && finishing == 0 && !keep && file) {
            file->remove();
            file.reset();
        }
    }
};

RecordingControl::RecordingControl(AppSettings& settings, Clock& clock, QObject* parent)
    : QObject(parent)
    , settings_(settings)
    , clock_(clock)
{
}

RecordingControl::~RecordingControl()
{
    for (auto& camera : running_) {
        disconnect(camera.failure);
        disconnect(camera.started);
        disconnect(camera.behind);
    }
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
        running.started =
            connect(engine, &CaptureEngine::recordingStarted, this,
                    [this, engine](const MovieStart& start) { movieStarted(engine, start); });
        running.behind = connect(engine, &CaptureEngine::recordingFallingBehind, this,
                                 [this, codec] { encoderFellBehind(codec); });
        engine->startRecording(running.path, codec, camera.includesAudio);
        running_.push_back(std::move(running));
    }
    saidFallingBehind_ = false;
    startedAt_ = clock_.now();
    recordingStart_ = clock_.wallNow();
    const QString mainMovie = running_.front().path;
    if (lastRecording_ != mainMovie) {
        lastRecording_ = mainMovie;
        Q_EMIT lastRecordingChanged();
    }
    cueLog_.clear();
    openJournal(mainMovie);
    if (activeCue_) {
        if (const auto cue = activeCue_()) {
            cueLog_.append({0, timecode_ ? timecode_() : QString(), cue->event, cue->detail});
            if (journal_->file)
                journal_->file->addRow(cueLog_.back());
        }
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
    std::shared_ptr<Journal> journal = std::move(journal_);
    journal->stop();
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
    QPointer<RecordingControl> self(this);
    const auto reported = [self, pending](Finished finished) {
        pending->finished.append(std::move(finished));
        if (--pending->left > 0)
            return;
        if (self)
            Q_EMIT self->recordingFinished(pending->finished);
        if (pending->done)
            pending->done();
    };
    for (auto& camera : cameras)
        finishCamera(std::move(camera), writesCueLog, log, journal, reported);
    journal->settle();
}

void RecordingControl::finishCamera(Running camera, bool writesCueLog, QList<CueLogEntry> log,
                                    std::shared_ptr<Journal> journal,
                                    std::function<void(Finished)> done)
{
    disconnect(camera.failure);
    disconnect(camera.started);
    disconnect(camera.behind);
    CaptureEngine* engine = camera.engine.data();
    if (!engine) {
        journal->keep = true; // its movie was left as it was written
        done({camera.label, {}, std::nullopt});
        return;
    }
    if (!camera.start)
        camera.start = engine->recordingStart();
    const double offset = camera.start ? secondsBetween(startedAt_, camera.start->capturedAt) : 0;
    const Instant stoppedAt = clock_.now();

    // The movie is finished twice: closed as it was written (the outcome, then the cue log
    // files), then rewritten with its chapters (movieFinished). Each camera is counted until
    // the second, or until its engine goes away first.
    struct Rewrite {
        bool hadMovie = false;
        bool over = false;
        QMetaObject::Connection finished;
        QMetaObject::Connection gone;
    };
    auto rewrite = std::make_shared<Rewrite>();
    ++finishing_;
    ++journal->finishing;
    QPointer<RecordingControl> self(this);
    const auto rewritten = [self, rewrite, journal](bool leftAsWritten) {
        if (rewrite->over)
            return;
        rewrite->over = true;
        QObject::disconnect(rewrite->finished);
        QObject::disconnect(rewrite->gone);
        if (self)
            --self->finishing_;
        if (leftAsWritten && rewrite->hadMovie)
            journal->keep = true;
        --journal->finishing;
        journal->settle();
    };
    rewrite->finished = connect(
        engine, &CaptureEngine::movieFinished, this,
        [this, path = camera.path, rewritten](const QString& finished, const FinishedMovie& movie) {
            if (finished != path)
                return;
            if (const auto message = chaptersLaterMessage(QFileInfo(path).fileName(), movie))
                Q_EMIT errorOccurred(*message);
            rewritten(movie.result != FinishedMovie::Result::finished);
        });
    rewrite->gone = connect(engine, &QObject::destroyed, this, [rewritten] { rewritten(true); });

    std::vector<MovieChapter> chapters = movieChapters(log, offset);
    engine->stopRecording(std::move(chapters), [label = camera.label, writesCueLog,
                                                log = std::move(log), offset, stoppedAt, rewrite,
                                                rewritten,
                                                done = std::move(done)](Recorder::Outcome outcome) {
        Finished finished{label, outcome, std::nullopt};
        // A movie cut short by a failure (a full disk) has frames but is not rewritten now:
        // its journal stays, so that the next start finishes it once there is room.
        rewrite->hadMovie = outcome.movie || outcome.start;
        if (!rewrite->hadMovie)
            rewritten(false); // no frame ever came: nothing to rewrite
        if (outcome.movie && !outcome.error && writesCueLog) {
            const double frameDuration = outcome.start ? outcome.start->frameDuration : 0;
            const double length =
                outcome.start ? secondsBetween(outcome.start->capturedAt, stoppedAt) : 0;
            if (const auto error =
                    writeCueLogFiles(*outcome.movie, log, offset, frameDuration, length))
                qCWarning(lcApp, "Couldn't write cue log: %s", qPrintable(*error));
            else
                finished.cueLog = cueLogPath(*outcome.movie);
        }
        done(std::move(finished));
    });
}

std::optional<QString> RecordingControl::chaptersLaterMessage(const QString& movieName,
                                                              const FinishedMovie& movie)
{
    const QString later =
        QStringLiteral(" It plays as it is; Orvane adds them when it next starts.");
    if (movie.result == FinishedMovie::Result::noRoom)
        return QStringLiteral("There wasn't room on the disk to add the cue chapters to “%1”.")
                   .arg(movieName) +
               later;
    if (movie.result == FinishedMovie::Result::failed)
        return QStringLiteral("Orvane couldn't add the cue chapters to “%1”: %2")
                   .arg(movieName, sentence(movie.message)) +
               later;
    return std::nullopt;
}

QString RecordingControl::fallingBehindMessage(MovieCodec codec)
{
    switch (codec) {
    case MovieCodec::hevc:
        return QStringLiteral("This computer can't encode HEVC as fast as the camera sends "
                              "pictures, so the recording is missing frames. Choose H.264 in the "
                              "recording settings to record every frame.");
    case MovieCodec::proRes422Proxy:
        return QStringLiteral("This computer can't write ProRes as fast as the camera sends "
                              "pictures, so the recording is missing frames. Choose H.264 in the "
                              "recording settings, or record to a faster disk.");
    case MovieCodec::h264:
        break;
    }
    return QStringLiteral("This computer can't encode the recording as fast as the cameras send "
                          "pictures, so it is missing frames. Record fewer cameras, or close "
                          "other programs.");
}

void RecordingControl::encoderFellBehind(MovieCodec codec)
{
    // Said once a recording, however many cameras fall behind.
    if (!isRecording() || saidFallingBehind_)
        return;
    saidFallingBehind_ = true;
    Q_EMIT errorOccurred(fallingBehindMessage(codec));
}

void RecordingControl::cameraFailed(CaptureEngine* engine, const CaptureError& error)
{
    const auto found = std::find_if(running_.begin(), running_.end(),
                                    [engine](const Running& r) { return r.engine == engine; });
    if (found == running_.end())
        return;
    Running camera = std::move(*found);
    running_.erase(found);
    Q_EMIT errorOccurred(QStringLiteral("A camera stopped recording. ") +
                         sentence(error.description()));
    // The failed movie keeps what was written before the failure and gets no cue log now; its
    // journal stays, and the next start finishes it with its chapters and cue log.
    finishCamera(std::move(camera), false, cueLog_, journal_, [](const Finished&) {});
    if (running_.empty() && recordingStart_) {
        journal_->stop();
        journal_->settle();
        journal_.reset();
        recordingStart_.reset();
        Q_EMIT recordingStartChanged();
    }
}

void RecordingControl::openJournal(const QString& mainMovie)
{
    journal_ = std::make_shared<Journal>();
    QStringList files;
    for (const auto& camera : running_)
        files.append(QFileInfo(camera.path).fileName());
    QString error;
    journal_->file = RecordingJournal::create(RecordingJournal::pathFor(mainMovie),
                                              QFileInfo(mainMovie).completeBaseName(),
                                              settings_.writesCueLog(), files, error);
    if (!journal_->file)
        qCWarning(lcApp, "Couldn't write the recording journal beside %s: %s",
                  qPrintable(mainMovie), qPrintable(error));
}

void RecordingControl::movieStarted(CaptureEngine* engine, const MovieStart& start)
{
    const auto found = std::find_if(running_.begin(), running_.end(),
                                    [engine](const Running& r) { return r.engine == engine; });
    if (found == running_.end())
        return;
    found->start = start;
    if (journal_ && journal_->file)
        journal_->file->addMovieStart(QFileInfo(found->path).fileName(),
                                      secondsBetween(startedAt_, start.capturedAt),
                                      start.frameDuration);
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
    if (journal_ && journal_->file)
        journal_->file->addRow(cueLog_.back());
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
