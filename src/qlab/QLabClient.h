#pragma once

#include "base/Clock.h"
#include "osc/OSCStream.h"
#include "qlab/QLabCue.h"
#include "qlab/QLabMessage.h"
#include "qlab/QLabWorkspace.h"
#include "show/ShowTime.h"

#include <QObject>
#include <QSet>
#include <QString>

#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace orvane {

// The link to QLab on one Mac: joins one of its open workspaces and keeps the running and
// paused cues and the running Timecode cue current for the overlay. Main thread only.
class QLabClient : public QObject {
    Q_OBJECT
    Q_PROPERTY(State state READ state NOTIFY stateChanged)
    Q_PROPERTY(QString statusText READ statusText NOTIFY stateChanged)
    Q_PROPERTY(QString advice READ advice NOTIFY stateChanged)
    Q_PROPERTY(QString workspaceName READ workspaceNameText NOTIFY workspaceNameChanged)

public:
    enum class State {
        unreachable, // the stream is retrying; failure() says why
        connecting,
        connected,
        noWorkspace,
        passcodeRequired,
    };
    Q_ENUM(State)

    // What the QLab settings ask for.
    struct Settings {
        bool isEnabled = false;
        QString host = QStringLiteral("localhost");
        int port = 53000;
        QString passcode;
        // The identity or part of the name of the workspace to join; empty: the first one.
        QString preferredWorkspace;
        friend bool operator==(const Settings&, const Settings&) = default;
    };

    explicit QLabClient(Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~QLabClient() override;

    // Stores the settings; when enabled, (re)joins from "/workspaces" at the host, or at this
    // computer when the host is blank.
    void apply(const Settings& settings);
    const Settings& settings() const { return settings_; }

    State state() const { return state_; }
    // Why the link is unreachable; meaningful in State::unreachable.
    const OSCStream::Failure& failure() const { return failure_; }
    // "Connected", "QLab Not Running"... for the QLab row of the interface.
    QString statusText() const;
    // The sentence under the status; empty when there is nothing to advise.
    QString advice() const;

    const std::optional<QString>& workspaceName() const { return workspaceName_; }
    QString workspaceNameText() const { return workspaceName_.value_or(QString()); }
    const std::vector<QLabWorkspace>& workspaces() const { return workspaces_; }
    // The running and paused cues in QLab's order, each with its group's name once known.
    const std::vector<QLabCue>& runningCues() const { return runningCues_; }
    // The first running Timecode cue, with its start and rate once QLab has told them.
    const std::optional<QLabCue>& timecodeCue() const { return timecodeCue_; }
    // The show timecode of the running Timecode cue at `now`, if there is one.
    std::optional<ShowTime> showTime(WallTime now) const;

    // Called after runningCues() changed (the application logs cue starts from it).
    void setOnRunningCuesChanged(std::function<void()> call)
    {
        onRunningCuesChanged_ = std::move(call);
    }

    // The delay between an update or event from QLab and the refresh of the running list.
    static constexpr Seconds kRefreshDelay{0.1};

signals:
    void stateChanged();
    void workspaceNameChanged();
    void workspacesChanged();
    void runningCuesChanged();
    void timecodeCueChanged();

private:
    void handleStatus(const OSCStream::Status& status);
    void handleReady();
    void handlePacket(const QByteArray& packet);
    void handleMessage(const QLabMessage& message);
    void handleReply(const QLabReply& reply);
    void handleWorkspaces(const QLabReply& reply);
    void handleConnectReply(const QLabReply& reply);
    void handleRunningCues(const QLabReply& reply);
    void handleCueValues(const QString& cueID, const QLabReply& reply);
    void keepExactElapsed(QLabCue& cue) const;
    void keepAliveTick();
    void pollTick();
    void subscribe();
    void scheduleRefresh();
    void requestRunningCues();
    void requestValues(const QString& cueID, const QStringList& keys);
    void publishCues();
    void leaveWorkspace();
    void forgetWorkspace();
    void setState(State state, OSCStream::Failure failure = {});
    void setWorkspaceName(std::optional<QString> name);
    void send(const QString& address, std::vector<OSCArgument> arguments = {});
    QString workspacePath(const QString& rest) const;
    bool isReady() const;
    bool isJoined() const { return state_ == State::connected && workspaceID_.has_value(); }

    struct KnownCue {
        QString number;
        QString name;
    };
    struct TimecodeDetails {
        std::optional<QString> start;
        std::optional<std::int64_t> rateIndex;
        std::optional<std::int64_t> outputType;
    };

    Clock& clock_;
    OSCStream stream_;
    Settings settings_;
    State state_ = State::connecting;
    OSCStream::Failure failure_;
    std::optional<QString> workspaceName_;
    std::vector<QLabWorkspace> workspaces_;
    std::vector<QLabCue> runningCues_;
    std::optional<QLabCue> timecodeCue_;
    std::function<void()> onRunningCuesChanged_;

    std::optional<QString> workspaceID_;
    // The workspace whose "/connect" awaits its answer.
    std::optional<QString> joining_;
    int keepAliveCount_ = 0;
    int pollCount_ = 0;
    std::map<QString, WallTime> firstSeen_;
    std::vector<QLabCue> rawCues_;
    std::map<QString, KnownCue> knownCues_;
    QSet<QString> pendingParentLookups_;
    // Parents that turned out to be cue lists or carts: never a group name, never asked again.
    QSet<QString> containerCues_;
    std::map<QString, TimecodeDetails> timecodeDetails_;
    QSet<QString> pendingTimecodeLookups_;

    Timer pollTask_;
    Timer refreshTask_;
};

} // namespace orvane
