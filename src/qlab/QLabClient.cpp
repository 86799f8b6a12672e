#include "qlab/QLabClient.h"

#include "base/Checks.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>

#include <algorithm>

namespace orvane {

Q_LOGGING_CATEGORY(lcQLab, "orvane.qlab")

namespace {

constexpr Seconds kKeepAliveInterval{5};
constexpr Seconds kSilenceTimeout{30};
constexpr Seconds kPollInterval{1};
// The keep-alive asks for the workspace list instead of a thump at every sixth tick (30 s).
constexpr int kWorkspacesEveryNthKeepAlive = 6;
// The poll asks for the whole running list at every fifth tick.
constexpr int kListEveryNthPoll = 5;

const QStringList& parentKeys()
{
    static const QStringList keys{"uniqueID", "number", "name", "type"};
    return keys;
}

const QStringList& timecodeKeys()
{
    static const QStringList keys{"uniqueID", "type",      "displayName", "actionElapsed",
                                  "isPaused", "startTime", "framerate",   "outputType"};
    return keys;
}

bool sameTarget(const std::optional<OSCStream::Target>& a, const OSCStream::Target& b)
{
    return a && a->host == b.host && a->port == b.port && a->framing == b.framing &&
           a->interfaceType == b.interfaceType;
}

bool sameFailure(const OSCStream::Failure& a, const OSCStream::Failure& b)
{
    return a.kind == b.kind && a.text == b.text;
}

// "/workspace/W/cue_id/C/valuesForKeys" gives C; anything else gives nothing.
std::optional<QString> cueOfValuesReply(const QString& address)
{
    const QStringList parts = address.split(u'/');
    if (parts.size() == 6 && parts[1] == u"workspace" && parts[3] == u"cue_id" &&
        parts[5] == u"valuesForKeys" && !parts[4].isEmpty())
        return parts[4];
    return std::nullopt;
}

} // namespace

QLabClient::QLabClient(Clock& clock, QObject* parent)
    : QObject(parent)
    , clock_(clock)
    , stream_(clock, this)
    , pollTask_(clock)
    , refreshTask_(clock)
{
    // The keep-alive message changes from tick to tick, so the stream calls back for it.
    stream_.setKeepAlive(std::nullopt, [this] { keepAliveTick(); });
    stream_.setKeepAliveInterval(kKeepAliveInterval);
    stream_.setSilenceTimeout(kSilenceTimeout);
    stream_.setOnStatusChange([this](const OSCStream::Status& status) { handleStatus(status); });
    stream_.setOnReady([this] { handleReady(); });
    stream_.setOnPacket([this](const QByteArray& packet) { handlePacket(packet); });
}

QLabClient::~QLabClient() = default;

void QLabClient::apply(const Settings& settings)
{
    assertOnOwnThread(this);
    if (settings == settings_)
        return;
    const bool enabledChanges = settings.isEnabled != settings_.isEnabled;
    settings_ = settings;
    leaveWorkspace();
    // A blank host is QLab on this computer, as in the settings window.
    const QString trimmed = settings.host.trimmed();
    const QString host = trimmed.isEmpty() ? Settings().host : trimmed;
    if (!settings.isEnabled) {
        stream_.disconnect();
        if (!workspaces_.empty()) {
            workspaces_.clear();
            emit workspacesChanged();
        }
        setState(State::connecting);
        if (enabledChanges)
            emit stateChanged();
        return;
    }
    if (enabledChanges)
        emit stateChanged();
    const OSCStream::Target target{host, settings.port, OSCFraming::slip, std::nullopt};
    if (!sameTarget(stream_.target(), target) ||
        stream_.status().kind == OSCStream::Status::Kind::idle) {
        stream_.connectTo(target);
        return;
    }
    // Same QLab, new passcode or workspace: join again from the workspace list.
    stream_.retryNow();
    if (isReady()) {
        setState(State::connecting);
        send(QStringLiteral("/workspaces"));
    }
}

QString QLabClient::statusText() const
{
    if (!settings_.isEnabled)
        return QStringLiteral("Off");
    switch (state_) {
    case State::connecting:
        return QStringLiteral("Connecting…");
    case State::connected:
        return QStringLiteral("Connected");
    case State::noWorkspace:
        return QStringLiteral("No Workspace Open");
    case State::passcodeRequired:
        return QStringLiteral("Passcode Required");
    case State::unreachable:
        return failure_.kind == OSCStream::Failure::Kind::refused
                   ? QStringLiteral("QLab Not Running")
                   : QStringLiteral("Not Connected");
    }
    return {};
}

QString QLabClient::advice() const
{
    if (!settings_.isEnabled)
        return {};
    switch (state_) {
    case State::connecting:
    case State::connected:
        return {};
    case State::noWorkspace:
        return QStringLiteral("Open a workspace in QLab and Orvane will connect to it.");
    case State::passcodeRequired:
        return QStringLiteral("This workspace needs an OSC passcode. Enter it below; it's set in "
                              "QLab's Workspace Settings › Network.");
    case State::unreachable:
        break;
    }
    using Kind = OSCStream::Failure::Kind;
    switch (failure_.kind) {
    case Kind::refused:
        return QStringLiteral("QLab isn't open on that Mac, or its OSC access is turned off in "
                              "Workspace Settings › Network.");
    case Kind::noAnswer:
    case Kind::unreachable:
        return QStringLiteral("Check that the QLab Mac is on and connected to the same network as "
                              "this computer.");
    case Kind::unknownHost:
        return QStringLiteral("Check the host name or address.");
    case Kind::wentQuiet:
        return QStringLiteral("QLab stopped answering. Orvane will keep trying.");
    case Kind::invalidPort:
        return QStringLiteral("Choose a port between 1 and 65535. QLab uses 53000.");
    case Kind::wrongProtocol:
        return QStringLiteral("That port isn't answering like QLab. QLab uses 53000.");
    case Kind::other:
    case Kind::closedByPeer:
        return {};
    }
    return {};
}

std::optional<ShowTime> QLabClient::showTime(WallTime now) const
{
    if (state_ != State::connected || !timecodeCue_)
        return std::nullopt;
    return timecodeCue_->runningTimecode(now);
}

void QLabClient::handleStatus(const OSCStream::Status& status)
{
    using Kind = OSCStream::Status::Kind;
    switch (status.kind) {
    case Kind::retrying:
        // The connection is gone, and with it the joined workspace: QLab forgets it too.
        pollTask_.stop();
        refreshTask_.stop();
        forgetWorkspace();
        setState(State::unreachable, status.failure);
        return;
    case Kind::idle:
        return;
    case Kind::connecting:
        setState(State::connecting);
        return;
    case Kind::ready:
        return; // handled by handleReady(), called right after
    }
}

void QLabClient::handleReady()
{
    keepAliveCount_ = 0;
    setState(State::connecting);
    send(QStringLiteral("/workspaces"));
}

void QLabClient::keepAliveTick()
{
    ++keepAliveCount_;
    if (isReady() && isJoined() && keepAliveCount_ % kWorkspacesEveryNthKeepAlive != 0)
        send(workspacePath(QStringLiteral("/thump")));
    else
        send(QStringLiteral("/workspaces"));
}

void QLabClient::handlePacket(const QByteArray& packet)
{
    for (const OSCMessage& osc : decodeOSCPacket(packet)) {
        if (const auto message = QLabMessage::classify(osc))
            handleMessage(*message);
    }
}

void QLabClient::handleMessage(const QLabMessage& message)
{
    using Kind = QLabMessage::Kind;
    switch (message.kind) {
    case Kind::reply:
        handleReply(message.reply);
        return;
    case Kind::cueStarted:
    case Kind::cueStopped:
    case Kind::cueUpdated:
    case Kind::playbackPositionChanged:
    case Kind::workspaceUpdated:
        if (isJoined())
            scheduleRefresh();
        return;
    case Kind::disconnect:
        if (!workspaceID_ || message.workspaceID != *workspaceID_)
            return;
        qCInfo(lcQLab) << "qlab: workspace" << message.workspaceID << "closed the link";
        leaveWorkspace();
        setState(State::connecting);
        send(QStringLiteral("/workspaces"));
        return;
    }
}

void QLabClient::handleReply(const QLabReply& reply)
{
    if (reply.address == u"/workspaces") {
        handleWorkspaces(reply);
        return;
    }
    if (!workspaceID_ || (reply.workspaceID && *reply.workspaceID != *workspaceID_))
        return;
    if (reply.address == workspacePath(QStringLiteral("/connect"))) {
        handleConnectReply(reply);
        return;
    }
    if (!isJoined())
        return;
    if (reply.address == workspacePath(QStringLiteral("/runningOrPausedCues")) ||
        reply.address == workspacePath(QStringLiteral("/runningOrPausedCues/shallow"))) {
        handleRunningCues(reply);
        return;
    }
    if (const auto cueID = cueOfValuesReply(reply.address))
        handleCueValues(*cueID, reply);
}

void QLabClient::handleWorkspaces(const QLabReply& reply)
{
    auto list = QLabWorkspace::decodeList(reply.data);
    if (!list)
        return;
    if (*list != workspaces_) {
        workspaces_ = std::move(*list);
        emit workspacesChanged();
    }
    if (state_ == State::connected || state_ == State::passcodeRequired)
        return;
    // A keep-alive's list that overtakes the answer to our "/connect" asks nothing again.
    const bool stillOpen = joining_ && std::any_of(workspaces_.begin(), workspaces_.end(),
                                                   [&](const QLabWorkspace& workspace) {
                                                       return workspace.id == *joining_;
                                                   });
    if (stillOpen)
        return;
    joining_.reset();
    if (workspaces_.empty()) {
        workspaceID_.reset();
        setWorkspaceName(std::nullopt);
        setState(State::noWorkspace);
        return;
    }
    const QString preferred = settings_.preferredWorkspace.trimmed();
    auto chosen = workspaces_.begin();
    if (!preferred.isEmpty()) {
        const auto match = std::find_if(
            workspaces_.begin(), workspaces_.end(), [&](const QLabWorkspace& workspace) {
                return workspace.id == preferred ||
                       workspace.name.contains(preferred, Qt::CaseInsensitive);
            });
        if (match != workspaces_.end())
            chosen = match;
    }
    workspaceID_ = chosen->id;
    setWorkspaceName(chosen->name);
    std::vector<OSCArgument> arguments;
    if (!settings_.passcode.isEmpty())
        arguments.emplace_back(settings_.passcode.toStdString());
    if (isReady())
        joining_ = workspaceID_;
    send(workspacePath(QStringLiteral("/connect")), std::move(arguments));
}

void QLabClient::handleConnectReply(const QLabReply& reply)
{
    joining_.reset();
    if (state_ == State::connected)
        return;
    const QString answer = reply.data.isString() ? reply.data.toString() : QString();
    if (answer == u"badpass" || answer == u"denied") {
        setState(State::passcodeRequired);
        return;
    }
    if (reply.status != u"ok") {
        setState(State::noWorkspace);
        return;
    }
    qCInfo(lcQLab) << "qlab: joined workspace" << *workspaceID_ << workspaceNameText();
    setState(State::connected);
    subscribe();
}

void QLabClient::subscribe()
{
    send(QStringLiteral("/updates"), {std::int32_t(1)});
    send(workspacePath(QStringLiteral("/listen/cue/start")));
    send(workspacePath(QStringLiteral("/listen/cue/stop")));
    requestRunningCues();
    pollCount_ = 0;
    pollTask_.startRepeating(kPollInterval, [this] { pollTick(); });
}

void QLabClient::pollTick()
{
    if (!isJoined() || !isReady())
        return;
    ++pollCount_;
    for (const QLabCue& cue : rawCues_) {
        if (cue.isTimecode())
            requestValues(cue.id, timecodeKeys());
    }
    if (pollCount_ % kListEveryNthPoll == 0)
        requestRunningCues();
}

void QLabClient::scheduleRefresh()
{
    refreshTask_.start(kRefreshDelay, [this] {
        if (isJoined())
            requestRunningCues();
    });
}

void QLabClient::requestRunningCues()
{
    send(workspacePath(QStringLiteral("/runningOrPausedCues/shallow")));
}

void QLabClient::requestValues(const QString& cueID, const QStringList& keys)
{
    const QByteArray json =
        QJsonDocument(QJsonArray::fromStringList(keys)).toJson(QJsonDocument::Compact);
    send(workspacePath(QStringLiteral("/cue_id/") + cueID + QStringLiteral("/valuesForKeys")),
         {json.toStdString()});
}

void QLabClient::handleRunningCues(const QLabReply& reply)
{
    const WallTime now = clock_.wallNow();
    auto cues = QLabCue::decodeList(reply.data, now);
    if (!cues)
        return;
    std::map<QString, WallTime> seen;
    for (QLabCue& cue : *cues) {
        const auto first = firstSeen_.find(cue.id);
        cue.startedAt = first == firstSeen_.end() ? now : first->second;
        seen.emplace(cue.id, *cue.startedAt);
        keepExactElapsed(cue);
        if (cue.isTimecode()) {
            const TimecodeDetails& details = timecodeDetails_[cue.id];
            if (!cue.timecodeStart)
                cue.timecodeStart = details.start;
            if (!cue.timecodeRateIndex)
                cue.timecodeRateIndex = details.rateIndex;
            if (!cue.timecodeOutputType)
                cue.timecodeOutputType = details.outputType;
        }
    }
    firstSeen_ = std::move(seen);
    rawCues_ = std::move(*cues);

    for (const QLabCue& cue : rawCues_) {
        if (!cue.parentID || knownCues_.count(*cue.parentID) ||
            pendingParentLookups_.contains(*cue.parentID) || containerCues_.contains(*cue.parentID))
            continue;
        pendingParentLookups_.insert(*cue.parentID);
        requestValues(*cue.parentID, parentKeys());
    }
    const auto timecode = std::find_if(rawCues_.begin(), rawCues_.end(),
                                       [](const QLabCue& cue) { return cue.isTimecode(); });
    if (timecode != rawCues_.end() && (!timecode->timecodeStart || !timecode->timecodeRateIndex) &&
        !pendingTimecodeLookups_.contains(timecode->id)) {
        pendingTimecodeLookups_.insert(timecode->id);
        requestValues(timecode->id, timecodeKeys());
    }
    publishCues();
}

// QLab's shallow list has no elapsed times: a cue that its own values timed keeps that exact
// time until they time it again. Timing it from when the list first showed it would set a
// running timecode back by the delay before it was seen, at every refresh of the list.
void QLabClient::keepExactElapsed(QLabCue& cue) const
{
    if (cue.actionElapsed || !firstSeen_.count(cue.id))
        return;
    const auto before = std::find_if(rawCues_.begin(), rawCues_.end(),
                                     [&](const QLabCue& old) { return old.id == cue.id; });
    if (before == rawCues_.end() || !before->actionElapsed)
        return;
    cue.actionElapsed = before->actionElapsed;
    cue.sampledAt = before->sampledAt;
    cue.isPaused = before->isPaused;
}

void QLabClient::handleCueValues(const QString& cueID, const QLabReply& reply)
{
    if (!reply.data.isObject())
        return;
    QJsonObject values = reply.data.toObject();
    values.insert(QStringLiteral("uniqueID"), cueID);
    const auto answer = QLabCue::decode(values, clock_.wallNow());
    if (!answer)
        return;
    pendingParentLookups_.remove(cueID);
    pendingTimecodeLookups_.remove(cueID);
    if (QLabCue::isContainerType(answer->type))
        containerCues_.insert(cueID);
    else
        knownCues_[cueID] = KnownCue{answer->number, answer->name};

    if (answer->isTimecode()) {
        TimecodeDetails& details = timecodeDetails_[cueID];
        if (answer->timecodeStart)
            details.start = answer->timecodeStart;
        if (answer->timecodeRateIndex)
            details.rateIndex = answer->timecodeRateIndex;
        if (answer->timecodeOutputType)
            details.outputType = answer->timecodeOutputType;
        for (QLabCue& cue : rawCues_) {
            if (cue.id != cueID)
                continue;
            cue.timecodeStart = details.start;
            cue.timecodeRateIndex = details.rateIndex;
            cue.timecodeOutputType = details.outputType;
            if (answer->actionElapsed) {
                cue.actionElapsed = answer->actionElapsed;
                cue.sampledAt = answer->sampledAt;
                cue.isPaused = answer->isPaused;
            }
        }
    }
    publishCues();
}

void QLabClient::publishCues()
{
    std::vector<QLabCue> cues = rawCues_;
    for (QLabCue& cue : cues) {
        if (!cue.parentID)
            continue;
        const auto known = knownCues_.find(*cue.parentID);
        if (known != knownCues_.end())
            cue.parentName =
                known->second.name.isEmpty() ? known->second.number : known->second.name;
    }
    if (cues != runningCues_) {
        runningCues_ = std::move(cues);
        emit runningCuesChanged();
        if (onRunningCuesChanged_)
            onRunningCuesChanged_();
    }
    std::optional<QLabCue> timecode;
    for (const QLabCue& cue : runningCues_) {
        if (cue.isTimecode()) {
            timecode = cue;
            break;
        }
    }
    if (timecode != timecodeCue_) {
        timecodeCue_ = std::move(timecode);
        emit timecodeCueChanged();
    }
}

void QLabClient::leaveWorkspace()
{
    pollTask_.stop();
    refreshTask_.stop();
    if (workspaceID_ && state_ == State::connected && isReady())
        send(workspacePath(QStringLiteral("/disconnect")));
    forgetWorkspace();
}

void QLabClient::forgetWorkspace()
{
    workspaceID_.reset();
    joining_.reset();
    setWorkspaceName(std::nullopt);
    rawCues_.clear();
    firstSeen_.clear();
    knownCues_.clear();
    pendingParentLookups_.clear();
    containerCues_.clear();
    timecodeDetails_.clear();
    pendingTimecodeLookups_.clear();
    publishCues();
}

void QLabClient::setState(State state, OSCStream::Failure failure)
{
    if (state == state_ && (state != State::unreachable || sameFailure(failure, failure_)))
        return;
    state_ = state;
    failure_ = state == State::unreachable ? std::move(failure) : OSCStream::Failure{};
    emit stateChanged();
}

void QLabClient::setWorkspaceName(std::optional<QString> name)
{
    if (name == workspaceName_)
        return;
    workspaceName_ = std::move(name);
    emit workspaceNameChanged();
}

void QLabClient::send(const QString& address, std::vector<OSCArgument> arguments)
{
    stream_.send(OSCMessage{address.toStdString(), std::move(arguments)});
}

QString QLabClient::workspacePath(const QString& rest) const
{
    return QStringLiteral("/workspace/") + workspaceID_.value_or(QString()) + rest;
}

bool QLabClient::isReady() const
{
    return stream_.status().kind == OSCStream::Status::Kind::ready;
}

} // namespace orvane
