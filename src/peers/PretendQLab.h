#pragma once

#include "base/Clock.h"
#include "osc/OSCMessage.h"

#include <QHostAddress>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

class QTcpServer;
class QTcpSocket;

namespace orvane {

// A pretend QLab 5 for tests and for trying Orvane without a Mac: it listens on TCP (53000 by
// default), frames OSC with SLIP and answers the requests Orvane makes ("/workspaces",
// "/workspace/ID/connect", "/thump", "/updates", "/listen/cue/…", "/runningOrPausedCues",
// "/cue_id/ID/valuesForKeys") with "/reply/…" messages carrying QLab's JSON envelope, and
// pushes "/update/workspace/…" and "/qlab/event/workspace/cue/…" messages as cues start and
// stop. Cue times run on the clock it is given. Main thread only.
class PretendQLab : public QObject {
    Q_OBJECT

public:
    struct Cue {
        QString id;
        QString number;
        QString name;
        QString type = QStringLiteral("Audio");
        QString parentID; // the group or cue list holding the cue
        std::optional<double> duration;
        // Timecode cues: start as QLab writes it, and the rate index of QLab's rate menu.
        QString startTime;
        int framerate = 1;
        int outputType = 0;
    };

    explicit PretendQLab(Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~PretendQLab() override;

    // Starts answering on `port` (0: any free port). False when the port is taken.
    bool listen(quint16 port = 53000, const QHostAddress& address = QHostAddress::LocalHost);
    quint16 port() const;
    // QLab quits: the listening socket and every connection close.
    void quit();

    // Opens a workspace; a non-empty passcode is asked for on connect. A passcode among
    // `deniedPasscodes` is known but grants no OSC access: QLab answers "denied".
    void openWorkspace(const QString& id, const QString& name, const QString& passcode = {},
                       const QStringList& deniedPasscodes = {});
    // Closes a workspace: connections that joined it are told "/update/workspace/ID/disconnect".
    void closeWorkspace(const QString& id);
    void addCue(const QString& workspaceID, const Cue& cue);
    // Starts, pauses, resumes or stops a cue; listening connections hear of it.
    void startCue(const QString& workspaceID, const QString& cueID);
    void pauseCue(const QString& workspaceID, const QString& cueID);
    void resumeCue(const QString& workspaceID, const QString& cueID);
    void stopCue(const QString& workspaceID, const QString& cueID);
    // Whether QLab writes numbers and Booleans as JSON strings in its replies (QLab does so for
    // some keys); off by default.
    void setWritesNumbersAsText(bool asText) { numbersAsText_ = asText; }
    // Whether "runningOrPausedCues/shallow" holds only the keys of QLab's own shallow cue
    // dictionaries (no parent, pause state, elapsed time or duration); off by default.
    void setListsShallowKeysOnly(bool only) { shallowKeysOnly_ = only; }

    // Holds back the answers to "valuesForKeys" until releaseCueValues(), as a busy QLab
    // would, so a test can see what a client does while it waits.
    void setHoldsCueValues(bool holds) { holdsCueValues_ = holds; }
    void releaseCueValues();
    // Holds back the answers to "/workspace/ID/connect" the same way.
    void setHoldsConnectAnswers(bool holds) { holdsConnectAnswers_ = holds; }
    void releaseConnectAnswers();

    // Every request address received, in order, and how many times one was received.
    const QStringList& requests() const { return requests_; }
    int requestCount(const QString& address) const { return requests_.count(address); }
    // The arguments of the last request to `address`.
    std::vector<OSCArgument> lastArguments(const QString& address) const;
    void clearRequests() { requests_.clear(); }
    int connectionCount() const;

signals:
    void requestReceived(const QString& address);

private:
    struct RunState {
        Instant startedAt;
        std::optional<Instant> pausedAt;
        double pausedSeconds = 0;
    };
    struct Workspace {
        QString id;
        QString name;
        QString passcode;
        QStringList deniedPasscodes;
        std::vector<Cue> cues;
        std::map<QString, RunState> running;
        std::vector<QString> runningOrder;
    };
    struct Connection;

    void accept();
    void receive(Connection& connection);
    void handle(Connection& connection, const OSCMessage& message);
    void handleWorkspace(Connection& connection, const OSCMessage& message, const QString& address);
    void reply(Connection& connection, const QString& address, const QString& status,
               const QJsonValue& data, const std::optional<QString>& workspaceID);
    void send(Connection& connection, const OSCMessage& message);
    void notifyCue(Workspace& workspace, const QString& cueID, bool started);
    QJsonObject describe(const Workspace& workspace, const Cue& cue) const;
    QJsonValue value(const Workspace& workspace, const Cue& cue, const QString& key) const;
    QJsonValue number(double value) const;
    Workspace* findWorkspace(const QString& id);
    const Cue* findCue(const Workspace& workspace, const QString& id) const;

    Clock& clock_;
    QTcpServer* server_ = nullptr;
    std::vector<std::unique_ptr<Connection>> connections_;
    std::vector<Workspace> workspaces_;
    QStringList requests_;
    std::map<QString, std::vector<OSCArgument>> lastArguments_;
    bool numbersAsText_ = false;
    bool shallowKeysOnly_ = false;
    bool holdsConnectAnswers_ = false;
    bool holdsCueValues_ = false;
    std::vector<std::function<void()>> heldReplies_;
};

} // namespace orvane
