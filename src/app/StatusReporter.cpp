#include "app/StatusReporter.h"

#include "app/AppModel.h"
#include "app/CueLog.h"
#include "app/Sentence.h"

#include <QFileInfo>

#include <algorithm>

namespace orvane {

namespace {

// "no frames", "1 frame", "12 frames".
QString framesText(int count)
{
    if (count == 0)
        return QStringLiteral("no frames");
    if (count == 1)
        return QStringLiteral("1 frame");
    return QStringLiteral("%1 frames").arg(count);
}

} // namespace

QString feedStateSentence(const FeedState& state)
{
    switch (state.kind) {
    case FeedState::Kind::disconnected:
        return state.text + QStringLiteral(" isn't connected.");
    case FeedState::Kind::failed:
        return state.text;
    case FeedState::Kind::starting:
        return QStringLiteral("Starting the camera…");
    case FeedState::Kind::live:
        return QStringLiteral("The camera is live.");
    case FeedState::Kind::noAccess:
        return QStringLiteral("Orvane isn't allowed to use the camera.");
    case FeedState::Kind::noCameras:
        return QStringLiteral("No camera is attached.");
    case FeedState::Kind::unassigned:
        return QStringLiteral("No camera is chosen.");
    }
    return {};
}

StatusReporter::StatusReporter(AppModel& model, QObject* parent)
    : QObject(parent)
    , model_(model)
{
    connect(&model, &AppModel::feedStateChanged, this,
            [this] { say(feedStateSentence(model_.feedState())); });
    connect(&model, &AppModel::errorMessageChanged, this, [this] {
        if (const auto message = model_.errorMessage())
            say(*message);
    });
    connect(&model, &AppModel::recordingStartChanged, this, [this] {
        const int lost = model_.engine().stats().droppedFrames;
        if (!model_.isRecording()) {
            say(QStringLiteral("Recording stopped; finishing the movies."));
            // The camera's count starts again when it is opened again.
            const int lostWhileRecording = std::max(0, lost - lostBeforeRecording_);
            return say(QStringLiteral("The main camera lost %1 while recording.")
                           .arg(framesText(lostWhileRecording)));
        }
        lostBeforeRecording_ = lost;
        reportedRows_ = 0;
        for (const auto& path : model_.recording().recordingPaths())
            say(QStringLiteral("Recording to “%1”.").arg(path));
    });
    connect(&model, &AppModel::cueLogChanged, this, [this] {
        const auto& log = model_.cueLog();
        for (; reportedRows_ < log.size(); ++reportedRows_) {
            const auto& entry = log[reportedRows_];
            QString text =
                QStringLiteral("Cue log %1: %2").arg(cueLogTime(entry.elapsed), entry.event);
            if (!entry.detail.isEmpty())
                text += QStringLiteral(" — ") + entry.detail;
            if (!entry.timecode.isEmpty())
                text += QStringLiteral(" (timecode %1)").arg(entry.timecode);
            say(text);
        }
    });
    connect(&model.recording(), &RecordingControl::recordingFinished, this,
            [this](const QList<RecordingControl::Finished>& cameras) {
                for (const auto& camera : cameras) {
                    if (camera.outcome.movie && !camera.outcome.error)
                        say(QStringLiteral("Saved “%1”.").arg(*camera.outcome.movie));
                    if (camera.cueLog)
                        say(QStringLiteral("Saved the cue log “%1”.").arg(*camera.cueLog));
                }
            });
    connect(&model.input().listener(), &OSCListener::stateChanged, this, [this] {
        const QString text = model_.input().listener().stateText();
        if (text == lastListener_)
            return;
        lastListener_ = text;
        say(sentence(QStringLiteral("OSC listener: ") + text));
    });
    connect(&model.eos(), &EosConnection::statusTextChanged, this, [this] {
        const auto& eos = model_.eos();
        if (!eos.configuration() || !eos.configuration()->enabled)
            return;
        QString text = sentence(QStringLiteral("Eos: ") + eos.statusText());
        if (!eos.advice().isEmpty())
            text += QLatin1Char(' ') + eos.advice();
        sayUnlessRepeated(text, lastEos_);
    });
    connect(&model.qlab(), &QLabClient::stateChanged, this, [this] {
        const auto& qlab = model_.qlab();
        if (!qlab.settings().isEnabled)
            return;
        QString text = sentence(QStringLiteral("QLab: ") + qlab.statusText());
        if (!qlab.advice().isEmpty())
            text += QLatin1Char(' ') + qlab.advice();
        sayUnlessRepeated(text, lastQLab_);
    });
    connect(&model.demo(), &DemoShow::isRunningChanged, this, [this] {
        say(model_.demo().isRunning() ? QStringLiteral("The demo show is running.")
                                      : QStringLiteral("The demo show stopped."));
    });
    connect(&model.outputs(), &Outputs::webStateChanged, this, [this] { reportWeb(); });
    connect(&model.outputs(), &Outputs::webAddressesChanged, this, [this] { reportWeb(); });
    connect(&model.outputs(), &Outputs::ndiStatusTextChanged, this,
            [this](const QString& text) { say(text); });
    connect(&model, &AppModel::networkRestarted, this, [this](const QStringList& interfaces) {
        say(QStringLiteral("Network changed: %1; reconnecting.")
                .arg(interfaces.join(QStringLiteral(", "))));
    });
}

void StatusReporter::reportWeb()
{
    const auto& outputs = model_.outputs();
    QString text;
    switch (outputs.webState().kind) {
    case WebViewer::State::Kind::off:
        text = QStringLiteral("The web viewer is off.");
        break;
    case WebViewer::State::Kind::failed:
        text = outputs.webStatusText();
        break;
    case WebViewer::State::Kind::listening: {
        text = QStringLiteral("Watch the picture at http://localhost:%1/")
                   .arg(outputs.webState().port);
        const QStringList others = outputs.webAddresses();
        if (!others.isEmpty())
            text += QStringLiteral(" (from other computers: ") + others.join(QStringLiteral(", ")) +
                    QLatin1Char(')');
        text += QLatin1Char('.');
        break;
    }
    }
    if (text == lastWeb_)
        return;
    lastWeb_ = text;
    say(text);
}

void StatusReporter::sayUnlessRepeated(const QString& text, QStringList& recent)
{
    // A link that retries goes back and forth between two statuses ("Searching…", "No
    // console found."): each is said once until something else happens.
    if (recent.contains(text))
        return;
    recent.append(text);
    if (recent.size() > 2)
        recent.removeFirst();
    say(text);
}

void StatusReporter::say(const QString& text)
{
    if (!text.isEmpty())
        Q_EMIT line(text);
}

} // namespace orvane
