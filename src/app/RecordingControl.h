#pragma once

#include "app/CueLogEntry.h"
#include "base/Clock.h"
#include "capture/CaptureError.h"
#include "capture/Recorder.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace orvane {

class AppSettings;
class CaptureEngine;

// Starts and stops the recording of every running camera together, one movie each, keeps
// the cue log of the recording in a journal beside the movies as it grows, and when the
// recording stops gives every movie its chapters and writes the cue log and the marker lists
// beside it; the journal goes once every movie is finished. Main thread only.
class RecordingControl : public QObject {
    Q_OBJECT

public:
    // A camera that can record now: its engine (borrowed), the label its movie is named
    // after (already made a file name) and whether it records sound.
    struct Camera {
        QPointer<CaptureEngine> engine;
        QString label;
        bool includesAudio = false;
    };
    // How one camera's recording ended.
    struct Finished {
        QString label;
        Recorder::Outcome outcome;
        std::optional<QString> cueLog; // the CSV written beside the movie
    };

    RecordingControl(AppSettings& settings, Clock& clock = Clock::system(),
                     QObject* parent = nullptr);
    ~RecordingControl() override;

    // The folder the movies go to (created when a recording starts).
    QString folder() const { return folder_; }
    void setFolder(const QString& folder) { folder_ = folder; }
    // The cameras that are running, the main camera first.
    void setCameras(std::function<std::vector<Camera>()> cameras) { cameras_ = std::move(cameras); }
    // The show time as text at this moment (empty when there is none).
    void setTimecode(std::function<QString()> timecode) { timecode_ = std::move(timecode); }
    // The cue that is active at this moment, as the event and detail of its row.
    struct CueRow {
        QString event;
        QString detail;
    };
    void setActiveCue(std::function<std::optional<CueRow>()> activeCue)
    {
        activeCue_ = std::move(activeCue);
    }

    // Starts every running camera; answers false, with errorOccurred, when nothing started.
    bool start();
    // Finishes every movie, then writes the cue logs; `done` runs when the last one is
    // written. Does nothing (but call `done`) while idle.
    void stop(std::function<void()> done = {});
    void toggle();

    // Adds a row "Marker" with `text` while recording.
    void addMarker(const QString& text);
    // Adds a row with `event` and `detail` at this moment, while recording.
    void logEvent(const QString& event, const QString& detail);

    bool isRecording() const { return recordingStart_.has_value(); }
    std::optional<WallTime> recordingStart() const { return recordingStart_; }
    // Seconds into the running recording.
    std::optional<double> elapsed() const;
    std::optional<QString> lastRecording() const { return lastRecording_; }
    const QList<CueLogEntry>& cueLog() const { return cueLog_; }
    // Movies still being finished (closed, then given their chapters) from earlier stops.
    int finishingCount() const { return finishing_; }
    // The movies of the running recording, main camera first.
    QStringList recordingPaths() const;

    // Shows the recordings: the last main movie in the file browser when it exists, the
    // folder otherwise (made first). Answers what was opened.
    QString showRecordings();

    static QString noFeedMessage();
    // What the user reads when the encoder cannot keep up with the cameras.
    static QString fallingBehindMessage(MovieCodec codec);
    // What a user is told when a stopped movie couldn't get its chapters; nothing when it did
    // or when the rewrite was only put off.
    static std::optional<QString> chaptersLaterMessage(const QString& movieName,
                                                       const FinishedMovie& movie);

Q_SIGNALS:
    void recordingStartChanged();
    void lastRecordingChanged();
    void cueLogChanged();
    // A sentence the user must read.
    void errorOccurred(const QString& message);
    // Every movie of a stopped recording is finished and its cue log written.
    void recordingFinished(const QList<orvane::RecordingControl::Finished>& cameras);

private:
    struct Running {
        QPointer<CaptureEngine> engine;
        QString label;
        QString path;
        QMetaObject::Connection failure;
        QMetaObject::Connection started;
        QMetaObject::Connection behind;
        std::optional<MovieStart> start; // the movie's time zero, once known
    };
    struct Journal;
    void addRow(const QString& event, const QString& detail);
    void encoderFellBehind(MovieCodec codec);
    void openJournal(const QString& mainMovie);
    void movieStarted(CaptureEngine* engine, const MovieStart& start);
    void finishCamera(Running camera, bool writesCueLog, QList<CueLogEntry> log,
                      std::shared_ptr<Journal> journal, std::function<void(Finished)> done);
    void cameraFailed(CaptureEngine* engine, const CaptureError& error);

    AppSettings& settings_;
    Clock& clock_;
    QString folder_;
    std::function<std::vector<Camera>()> cameras_;
    std::function<QString()> timecode_;
    std::function<std::optional<CueRow>()> activeCue_;

    std::vector<Running> running_;
    std::optional<WallTime> recordingStart_;
    bool saidFallingBehind_ = false;
    Instant startedAt_{};
    std::optional<QString> lastRecording_;
    QList<CueLogEntry> cueLog_;
    std::shared_ptr<Journal> journal_;
    int finishing_ = 0;
};

} // namespace orvane
