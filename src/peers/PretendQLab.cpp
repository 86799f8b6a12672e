#include "peers/PretendQLab.h"

#include <QJsonArray>
#include <QLocale>
#include <QJsonDocument>
#include <QTcpServer>
#include <QTcpSocket>

#include <algorithm>

namespace orvane {

namespace {

constexpr char kEnd = char(0xC0);
constexpr char kEscape = char(0xDB);
constexpr char kEscapedEnd = char(0xDC);
constexpr char kEscapedEscape = char(0xDD);

// SLIP as QLab writes it: an END byte before and after every packet.
QByteArray slipFrame(const QByteArray& packet)
{
    QByteArray framed;
    framed.reserve(packet.size() + 8);
    framed.append(kEnd);
    for (char byte : packet) {
        if (byte == kEnd)
            framed.append(kEscape).append(kEscapedEnd);
        else if (byte == kEscape)
            framed.append(kEscape).append(kEscapedEscape);
        else
            framed.append(byte);
    }
    framed.append(kEnd);
    return framed;
}

// A cue dictionary cut down to the keys QLab puts in a shallow cue list.
QJsonObject shallowKeys(const QJsonObject& cue)
{
    QJsonObject kept;
    for (const char* key :
         {"uniqueID", "number", "name", "listName", "type", "colorName", "flagged", "armed"}) {
        if (cue.contains(QLatin1String(key)))
            kept.insert(QLatin1String(key), cue.value(QLatin1String(key)));
    }
    return kept;
}

QString textOf(const OSCArgument& argument)
{
    if (const auto* text = std::get_if<std::string>(&argument))
        return QString::fromStdString(*text);
    return {};
}

} // namespace

struct PretendQLab::Connection {
    QTcpSocket* socket = nullptr;
    QByteArray frame;
    bool escaped = false;
    QStringList joined;
    bool updates = false;
    bool listensToStart = false;
    bool listensToStop = false;
};

PretendQLab::PretendQLab(Clock& clock, QObject* parent) : QObject(parent), clock_(clock) {}

PretendQLab::~PretendQLab()
{
    quit();
}

bool PretendQLab::listen(quint16 port, const QHostAddress& address)
{
    quit();
    server_ = new QTcpServer(this);
    connect(server_, &QTcpServer::newConnection, this, &PretendQLab::accept);
    return server_->listen(address, port);
}

quint16 PretendQLab::port() const
{
    return server_ ? server_->serverPort() : 0;
}

void PretendQLab::quit()
{
    for (auto& connection : connections_) {
        connection->socket->disconnect(this);
        connection->socket->abort();
        connection->socket->deleteLater();
    }
    connections_.clear();
    if (server_) {
        server_->close();
        server_->deleteLater();
        server_ = nullptr;
    }
}

void PretendQLab::releaseCueValues()
{
    holdsCueValues_ = false;
    for (const auto& send : std::exchange(heldReplies_, {}))
        send();
}

void PretendQLab::releaseConnectAnswers()
{
    holdsConnectAnswers_ = false;
    for (const auto& send : std::exchange(heldReplies_, {}))
        send();
}

int PretendQLab::connectionCount() const
{
    return int(connections_.size());
}

std::vector<OSCArgument> PretendQLab::lastArguments(const QString& address) const
{
    const auto found = lastArguments_.find(address);
    return found == lastArguments_.end() ? std::vector<OSCArgument>{} : found->second;
}

void PretendQLab::openWorkspace(const QString& id, const QString& name, const QString& passcode,
                                const QStringList& deniedPasscodes)
{
    workspaces_.push_back({id, name, passcode, deniedPasscodes, {}, {}, {}});
}

void PretendQLab::closeWorkspace(const QString& id)
{
    for (auto& connection : connections_) {
        if (connection->joined.removeAll(id) > 0)
            send(*connection, {("/update/workspace/" + id + "/disconnect").toStdString(), {}});
    }
    std::erase_if(workspaces_, [&](const Workspace& workspace) { return workspace.id == id; });
}

void PretendQLab::addCue(const QString& workspaceID, const Cue& cue)
{
    if (auto* workspace = findWorkspace(workspaceID))
        workspace->cues.push_back(cue);
}

void PretendQLab::startCue(const QString& workspaceID, const QString& cueID)
{
    auto* workspace = findWorkspace(workspaceID);
    if (!workspace || !findCue(*workspace, cueID))
        return;
    workspace->running[cueID] = RunState{clock_.now(), std::nullopt, 0};
    if (std::find(workspace->runningOrder.begin(), workspace->runningOrder.end(), cueID) ==
        workspace->runningOrder.end())
        workspace->runningOrder.push_back(cueID);
    notifyCue(*workspace, cueID, true);
}

void PretendQLab::pauseCue(const QString& workspaceID, const QString& cueID)
{
    auto* workspace = findWorkspace(workspaceID);
    if (!workspace || !workspace->running.count(cueID))
        return;
    auto& run = workspace->running[cueID];
    if (!run.pausedAt)
        run.pausedAt = clock_.now();
    notifyCue(*workspace, cueID, true);
}

void PretendQLab::resumeCue(const QString& workspaceID, const QString& cueID)
{
    auto* workspace = findWorkspace(workspaceID);
    if (!workspace || !workspace->running.count(cueID))
        return;
    auto& run = workspace->running[cueID];
    if (run.pausedAt)
        run.pausedSeconds += secondsBetween(*run.pausedAt, clock_.now());
    run.pausedAt.reset();
    notifyCue(*workspace, cueID, true);
}

void PretendQLab::stopCue(const QString& workspaceID, const QString& cueID)
{
    auto* workspace = findWorkspace(workspaceID);
    if (!workspace || !workspace->running.erase(cueID))
        return;
    std::erase(workspace->runningOrder, cueID);
    notifyCue(*workspace, cueID, false);
}

void PretendQLab::accept()
{
    while (QTcpSocket* socket = server_->nextPendingConnection()) {
        auto connection = std::make_unique<Connection>();
        connection->socket = socket;
        socket->setParent(this);
        Connection* raw = connection.get();
        connections_.push_back(std::move(connection));
        connect(socket, &QTcpSocket::readyRead, this, [this, raw] { receive(*raw); });
        connect(socket, &QTcpSocket::disconnected, this, [this, raw] {
            raw->socket->deleteLater();
            std::erase_if(connections_, [raw](const auto& c) { return c.get() == raw; });
        });
    }
}

void PretendQLab::receive(Connection& connection)
{
    const QByteArray bytes = connection.socket->readAll();
    std::vector<QByteArray> packets;
    for (char byte : bytes) {
        if (connection.escaped) {
            connection.frame.append(byte == kEscapedEnd ? kEnd
                                    : byte == kEscapedEscape ? kEscape
                                                             : byte);
            connection.escaped = false;
        } else if (byte == kEscape) {
            connection.escaped = true;
        } else if (byte == kEnd) {
            if (!connection.frame.isEmpty())
                packets.push_back(std::exchange(connection.frame, {}));
        } else {
            connection.frame.append(byte);
        }
    }
    // Handling a packet may close this connection (a workspace closes, QLab quits), so the
    // connection is looked up again before each one.
    Connection* current = &connection;
    for (const QByteArray& packet : packets) {
        const bool alive = std::any_of(connections_.begin(), connections_.end(),
                                       [current](const auto& c) { return c.get() == current; });
        if (!alive)
            return;
        for (const OSCMessage& message : decodeOSCPacket(packet))
            handle(*current, message);
    }
}

void PretendQLab::handle(Connection& connection, const OSCMessage& message)
{
    const QString address = QString::fromStdString(message.address);
    requests_.append(address);
    lastArguments_[address] = message.arguments;
    emit requestReceived(address);

    if (address == u"/workspaces") {
        QJsonArray list;
        for (const Workspace& workspace : workspaces_) {
            list.append(QJsonObject{{"uniqueID", workspace.id},
                                    {"displayName", workspace.name},
                                    {"hasPasscode", !workspace.passcode.isEmpty()},
                                    {"version", "5.4.1"}});
        }
        reply(connection, address, QStringLiteral("ok"), list, std::nullopt);
        return;
    }
    if (address == u"/updates") {
        const auto* on = message.arguments.empty() ? nullptr
                                                   : std::get_if<std::int32_t>(&message.arguments[0]);
        connection.updates = on && *on != 0;
        reply(connection, address, QStringLiteral("ok"), QJsonValue(QJsonValue::Undefined),
              std::nullopt);
        return;
    }
    if (address.startsWith(u"/workspace/")) {
        handleWorkspace(connection, message, address);
        return;
    }
    reply(connection, address, QStringLiteral("error"), QJsonValue(QJsonValue::Undefined),
          std::nullopt);
}

void PretendQLab::handleWorkspace(Connection& connection, const OSCMessage& message,
                                  const QString& address)
{
    const QStringList parts = address.mid(int(qstrlen("/workspace/"))).split(u'/');
    const QString id = parts.value(0);
    const QString method = parts.mid(1).join(u'/');
    Workspace* workspace = findWorkspace(id);
    const auto undefined = QJsonValue(QJsonValue::Undefined);
    if (!workspace) {
        reply(connection, address, QStringLiteral("error"), undefined, id);
        return;
    }
    if (method == u"connect") {
        const QString given = message.arguments.empty() ? QString() : textOf(message.arguments[0]);
        if (workspace->deniedPasscodes.contains(given)) {
            reply(connection, address, QStringLiteral("ok"), QStringLiteral("denied"), id);
            return;
        }
        if (!workspace->passcode.isEmpty() && given != workspace->passcode) {
            reply(connection, address, QStringLiteral("ok"), QStringLiteral("badpass"), id);
            return;
        }
        if (!connection.joined.contains(id))
            connection.joined.append(id);
        reply(connection, address, QStringLiteral("ok"), QStringLiteral("ok:view|edit|control"), id);
        return;
    }
    if (!connection.joined.contains(id)) {
        reply(connection, address, QStringLiteral("denied"), undefined, id);
        return;
    }
    if (method == u"disconnect") {
        connection.joined.removeAll(id);
        reply(connection, address, QStringLiteral("ok"), undefined, id);
        return;
    }
    if (method == u"thump") {
        reply(connection, address, QStringLiteral("ok"), QStringLiteral("thump"), id);
        return;
    }
    if (method == u"listen/cue/start" || method == u"listen/cue/stop") {
        (method.endsWith(u"start") ? connection.listensToStart : connection.listensToStop) = true;
        reply(connection, address, QStringLiteral("ok"), undefined, id);
        return;
    }
    if (method == u"runningOrPausedCues" || method == u"runningOrPausedCues/shallow") {
        QJsonArray list;
        for (const QString& cueID : workspace->runningOrder) {
            if (const Cue* cue = findCue(*workspace, cueID)) {
                const QJsonObject entry = describe(*workspace, *cue);
                const bool shallow = shallowKeysOnly_ && method.endsWith(u"/shallow");
                list.append(shallow ? shallowKeys(entry) : entry);
            }
        }
        reply(connection, address, QStringLiteral("ok"), list, id);
        return;
    }
    if (parts.size() == 4 && parts[1] == u"cue_id" && parts[3] == u"valuesForKeys") {
        const Cue* cue = findCue(*workspace, parts[2]);
        const auto keys = QJsonDocument::fromJson(
            message.arguments.empty() ? QByteArray() : textOf(message.arguments[0]).toUtf8());
        if (!cue || !keys.isArray()) {
            reply(connection, address, QStringLiteral("error"), undefined, id);
            return;
        }
        QJsonObject values;
        for (const QJsonValue& key : keys.array())
            values.insert(key.toString(), value(*workspace, *cue, key.toString()));
        if (!holdsCueValues_) {
            reply(connection, address, QStringLiteral("ok"), values, id);
            return;
        }
        heldReplies_.push_back([this, socket = connection.socket, address, values, id] {
            for (auto& c : connections_) {
                if (c->socket == socket)
                    reply(*c, address, QStringLiteral("ok"), values, id);
            }
        });
        return;
    }
    reply(connection, address, QStringLiteral("error"), undefined, id);
}

void PretendQLab::reply(Connection& connection, const QString& address, const QString& status,
                        const QJsonValue& data, const std::optional<QString>& workspaceID)
{
    if (holdsConnectAnswers_ && address.endsWith(u"/connect")) {
        heldReplies_.push_back([=, this, socket = connection.socket] {
            for (auto& c : connections_) {
                if (c->socket == socket)
                    reply(*c, address, status, data, workspaceID);
            }
        });
        return;
    }
    QJsonObject envelope;
    if (workspaceID)
        envelope.insert(QStringLiteral("workspace_id"), *workspaceID);
    envelope.insert(QStringLiteral("address"), address);
    envelope.insert(QStringLiteral("status"), status);
    if (!data.isUndefined())
        envelope.insert(QStringLiteral("data"), data);
    const QByteArray json = QJsonDocument(envelope).toJson(QJsonDocument::Compact);
    send(connection, {("/reply" + address).toStdString(), {json.toStdString()}});
}

void PretendQLab::send(Connection& connection, const OSCMessage& message)
{
    connection.socket->write(slipFrame(encodeOSC(message)));
}

void PretendQLab::notifyCue(Workspace& workspace, const QString& cueID, bool started)
{
    const Cue* cue = findCue(workspace, cueID);
    for (auto& connection : connections_) {
        if (!connection->joined.contains(workspace.id))
            continue;
        if (started ? connection->listensToStart : connection->listensToStop) {
            send(*connection, {started ? "/qlab/event/workspace/cue/start"
                                       : "/qlab/event/workspace/cue/stop",
                               {workspace.id.toStdString(), cueID.toStdString()}});
        }
        if (connection->updates) {
            send(*connection,
                 {("/update/workspace/" + workspace.id + "/cue_id/" + cueID).toStdString(), {}});
            if (cue && !cue->parentID.isEmpty()) {
                send(*connection, {("/update/workspace/" + workspace.id + "/cueList/" +
                                    cue->parentID + "/playbackPosition")
                                       .toStdString(),
                                   {cueID.toStdString()}});
            }
        }
    }
}

QJsonObject PretendQLab::describe(const Workspace& workspace, const Cue& cue) const
{
    QJsonObject object;
    for (const char* key : {"uniqueID", "number", "name", "listName", "type", "colorName",
                            "flagged", "armed", "parent", "isPaused", "actionElapsed",
                            "currentDuration"}) {
        const QString name = QString::fromLatin1(key);
        const QJsonValue v = value(workspace, cue, name);
        if (!v.isUndefined())
            object.insert(name, v);
    }
    return object;
}

QJsonValue PretendQLab::value(const Workspace& workspace, const Cue& cue, const QString& key) const
{
    const auto run = workspace.running.find(cue.id);
    const bool running = run != workspace.running.end();
    if (key == u"uniqueID")
        return cue.id;
    if (key == u"number")
        return cue.number;
    if (key == u"name" || key == u"listName")
        return cue.name;
    if (key == u"displayName") {
        if (!cue.name.isEmpty())
            return cue.name;
        if (cue.type == u"Timecode")
            return QStringLiteral("Timecode: ") + cue.startTime;
        return cue.type;
    }
    if (key == u"type")
        return cue.type;
    if (key == u"colorName")
        return QStringLiteral("none");
    if (key == u"flagged")
        return numbersAsText_ ? QJsonValue(QStringLiteral("false")) : QJsonValue(false);
    if (key == u"armed")
        return numbersAsText_ ? QJsonValue(QStringLiteral("true")) : QJsonValue(true);
    if (key == u"parent")
        return cue.parentID;
    if (key == u"isPaused") {
        const bool paused = running && run->second.pausedAt.has_value();
        return numbersAsText_ ? QJsonValue(paused ? QStringLiteral("true") : QStringLiteral("false"))
                              : QJsonValue(paused);
    }
    if (key == u"actionElapsed") {
        if (!running)
            return number(0);
        const Instant until = run->second.pausedAt.value_or(clock_.now());
        return number(secondsBetween(run->second.startedAt, until) - run->second.pausedSeconds);
    }
    if (key == u"currentDuration" || key == u"duration")
        return number(cue.duration.value_or(0));
    if (key == u"startTime")
        return cue.type == u"Timecode" ? QJsonValue(cue.startTime) : QJsonValue(QJsonValue::Null);
    if (key == u"framerate")
        return number(cue.framerate);
    if (key == u"outputType")
        return number(cue.outputType);
    return QJsonValue(QJsonValue::Null);
}

QJsonValue PretendQLab::number(double value) const
{
    if (numbersAsText_)
        return QString::number(value, 'g', QLocale::FloatingPointShortest);
    return value;
}

PretendQLab::Workspace* PretendQLab::findWorkspace(const QString& id)
{
    const auto found = std::find_if(workspaces_.begin(), workspaces_.end(),
                                    [&](const Workspace& workspace) { return workspace.id == id; });
    return found == workspaces_.end() ? nullptr : &*found;
}

const PretendQLab::Cue* PretendQLab::findCue(const Workspace& workspace, const QString& id) const
{
    const auto found = std::find_if(workspace.cues.begin(), workspace.cues.end(),
                                    [&](const Cue& cue) { return cue.id == id; });
    return found == workspace.cues.end() ? nullptr : &*found;
}

} // namespace orvane
