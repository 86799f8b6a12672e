#include "peers/PretendConsole.h"

#include "osc/OSCStreamDecoder.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QUdpSocket>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orvane {

namespace {

QString secondsText(double seconds)
{
    return QString::number(seconds, 'g', 4);
}

std::optional<std::int32_t> intArgument(const OSCMessage& message, std::size_t index)
{
    if (index >= message.arguments.size())
        return std::nullopt;
    if (const auto* number = std::get_if<std::int32_t>(&message.arguments[index]))
        return *number;
    if (const auto* real = std::get_if<float>(&message.arguments[index]))
        return std::int32_t(std::lround(*real));
    return std::nullopt;
}

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

} // namespace

struct PretendConsole::Client {
    QTcpSocket* socket;
    OSCStreamDecoder decoder;
};

const std::vector<PretendConsole::Cue>& PretendConsole::cueList()
{
    static const std::vector<Cue> cues{
        {QStringLiteral("1"), QStringLiteral("House to Half"), 5},
        {QStringLiteral("2"), QStringLiteral("Preset"), 3},
        {QStringLiteral("3"), QStringLiteral("Opening Number"), 5},
        {QStringLiteral("4"), QStringLiteral("Blackout"), 0},
        {QStringLiteral("5"), QStringLiteral("Sunrise"), 2.5},
        {QStringLiteral("6"), QStringLiteral("Day to Dusk"), 4, 3},
        {QStringLiteral("14.5"), QStringLiteral("Storm"), 1},
        {QStringLiteral("20"), QStringLiteral("Bows"), 3},
    };
    return cues;
}

PretendConsole::PretendConsole(Options options, Clock& clock, QObject* parent)
    : QObject(parent), options_(std::move(options)), clock_(clock), fade_(clock)
{
}

PretendConsole::~PretendConsole()
{
    stop();
}

int PretendConsole::socket(int type) const
{
    if (socketFactory_)
        return socketFactory_(type);
    return ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
}

bool PretendConsole::start(QString* error)
{
    stop();
    const bool ok = (!options_.listens || (listen(OSCFraming::slip, options_.slipPort, error) &&
                                           listen(OSCFraming::lengthPrefixed,
                                                  options_.lengthPort, error))) &&
                    (!options_.answersDiscovery || openDiscovery(error));
    if (!ok)
        stop();
    return ok;
}

void PretendConsole::stop()
{
    fade_.stop();
    for (auto& client : clients_) {
        client->socket->disconnect(this);
        client->socket->abort();
        client->socket->deleteLater();
    }
    clients_.clear();
    for (QTcpServer* server : servers_)
        delete server;
    servers_.clear();
    if (replies_ != discovery_)
        delete replies_;
    delete discovery_;
    replies_ = discovery_ = nullptr;
}

bool PretendConsole::moveTo(const QHostAddress& address, QString* error)
{
    options_.address = address;
    return start(error);
}

bool PretendConsole::listen(OSCFraming framing, quint16 port, QString* error)
{
    const int fd = socket(SOCK_STREAM);
    const int on = 1;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(options_.address.toIPv4Address());
    local.sin_port = htons(port);
    if (fd < 0 || ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
        ::listen(fd, 64) != 0) {
        if (error)
            *error = QStringLiteral("cannot listen on %1:%2: %3")
                         .arg(options_.address.toString())
                         .arg(port)
                         .arg(systemError());
        if (fd >= 0)
            ::close(fd);
        return false;
    }
    auto* server = new QTcpServer(this);
    server->setSocketDescriptor(fd);
    connect(server, &QTcpServer::newConnection, this,
            [this, server, framing] { accept(server, framing); });
    servers_.push_back(server);
    return true;
}

bool PretendConsole::openDiscovery(QString* error)
{
    const auto bound = [&](quint32 address, quint16 port) -> QUdpSocket* {
        const int fd = socket(SOCK_DGRAM);
        const int on = 1;
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(address);
        local.sin_port = htons(port);
        // Several pretend consoles on one host all hear the broadcast.
        if (fd < 0 || ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
            ::setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
            ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
            if (error)
                *error = QStringLiteral("cannot open UDP port %1: %2").arg(port).arg(systemError());
            if (fd >= 0)
                ::close(fd);
            return nullptr;
        }
        auto* udp = new QUdpSocket(this);
        udp->setSocketDescriptor(fd, QAbstractSocket::BoundState);
        return udp;
    };
    // A socket bound to one address never hears broadcasts: listen on any address, and
    // answer from the console's own address so that two consoles on one host stay two.
    discovery_ = bound(INADDR_ANY, options_.discoveryPort);
    if (!discovery_)
        return false;
    if (options_.address == QHostAddress(QHostAddress::AnyIPv4)) {
        replies_ = discovery_;
    } else {
        replies_ = bound(options_.address.toIPv4Address(), 0);
        if (!replies_)
            return false;
    }
    connect(discovery_, &QUdpSocket::readyRead, this, [this] { answerDiscovery(); });
    return true;
}

void PretendConsole::answerDiscovery()
{
    while (discovery_ && discovery_->hasPendingDatagrams()) {
        QHostAddress sender;
        QByteArray datagram(int(std::max<qint64>(discovery_->pendingDatagramSize(), 0)), '\0');
        const qint64 got = discovery_->readDatagram(datagram.data(), datagram.size(), &sender);
        if (got < 0)
            continue;
        datagram.truncate(got);
        for (const OSCMessage& message : decodeOSCPacket(datagram)) {
            const auto port = intArgument(message, 0);
            if (message.address != "/etc/discovery/request" || !port || *port < 1 ||
                *port > 65535)
                continue;
            ++discoveryRequests_;
            std::vector<OSCArgument> all{std::int32_t(options_.slipPort),
                                         options_.deviceName.toStdString(),
                                         options_.consoleID.toStdString(),
                                         options_.version.toStdString()};
            all.resize(std::size_t(std::clamp(options_.replyArguments, 0, 4)));
            const QByteArray reply = encodeOSC(OSCMessage{"/etc/discovery/reply", all});
            for (int copy = 0; copy < options_.repliesPerRequest; ++copy)
                replies_->writeDatagram(reply, QHostAddress(sender.toIPv4Address()),
                                        quint16(*port));
        }
    }
}

void PretendConsole::accept(QTcpServer* server, OSCFraming framing)
{
    while (QTcpSocket* socket = server->nextPendingConnection()) {
        ++connectionsAccepted_;
        socket->setParent(this);
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        auto client = std::make_unique<Client>(Client{socket, OSCStreamDecoder(framing)});
        Client* raw = client.get();
        clients_.push_back(std::move(client));
        connect(socket, &QTcpSocket::readyRead, this, [this, raw] { readClient(raw); });
        connect(socket, &QTcpSocket::disconnected, this, [this, raw] {
            const auto found = std::find_if(clients_.begin(), clients_.end(),
                                            [raw](const auto& c) { return c.get() == raw; });
            if (found == clients_.end())
                return;
            (*found)->socket->deleteLater();
            clients_.erase(found);
        });
        if (!options_.speaksEos)
            socket->write("pretend service ready\r\n");
        Q_EMIT clientConnected();
    }
}

void PretendConsole::readClient(Client* client)
{
    const QByteArray bytes = client->socket->readAll();
    if (!options_.speaksEos)
        return;
    for (const QByteArray& packet : client->decoder.decode(bytes)) {
        for (const OSCMessage& message : decodeOSCPacket(packet)) {
            // A reply may close the client; stop reading from it then.
            const bool stillThere = std::any_of(clients_.begin(), clients_.end(),
                                                [client](const auto& c) { return c.get() == client; });
            if (!stillThere)
                return;
            handle(client, message);
        }
    }
}

void PretendConsole::handle(Client* client, const OSCMessage& message)
{
    const QString address = QString::fromStdString(message.address);
    received_.append(address);
    Q_EMIT messageReceived(address);
    if (message.address == "/eos/ping") {
        send(client, OSCMessage{"/eos/out/ping", message.arguments});
    } else if (message.address == "/eos/get/version") {
        send(client, OSCMessage{"/eos/out/get/version", {options_.version.toStdString()}});
    } else if (message.address == "/eos/reset") {
        send(client, OSCMessage{"/eos/out/show/name", {options_.showName.toStdString()}});
        sendCueTexts(client);
    } else if (message.address == "/eos/key/go_0") {
        const auto pressed = intArgument(message, 0);
        if (!pressed || *pressed != 0)
            go();
    } else {
        // "/eos/cue/1/14/fire" or "/eos/cue/14/fire"
        const QStringList parts = address.split(QLatin1Char('/'), Qt::SkipEmptyParts);
        if (parts.size() >= 4 && parts[0] == u"eos" && parts[1] == u"cue" &&
            parts.last() == u"fire")
            fireCue(parts[parts.size() - 2]);
    }
}

QString PretendConsole::cueText(int index, std::optional<int> percent, int part) const
{
    if (index < 0)
        return {};
    const Cue& cue = cueList()[std::size_t(index)];
    const QString token = part > 0 ? QStringLiteral("1/%1P%2").arg(cue.number).arg(part)
                                   : QStringLiteral("1/") + cue.number;
    QString text = QStringLiteral("%1 %2 %3").arg(token, cue.label, secondsText(cue.seconds));
    if (percent)
        text += QStringLiteral(" %1%").arg(*percent);
    return text;
}

std::vector<OSCMessage> PretendConsole::activeCueTexts() const
{
    const int parts = active_ < 0 ? 0 : cueList()[std::size_t(active_)].parts;
    std::vector<OSCMessage> texts;
    for (int part = parts > 0 ? 1 : 0; part <= parts; ++part)
        texts.push_back(
            {"/eos/out/active/cue/text", {cueText(active_, percent_, part).toStdString()}});
    return texts;
}

void PretendConsole::sendCueTexts(Client* client)
{
    const int pending = (active_ + 1) % int(cueList().size());
    std::vector<OSCMessage> texts = activeCueTexts();
    texts.push_back({"/eos/out/pending/cue/text", {cueText(pending, std::nullopt).toStdString()}});
    texts.push_back(
        {"/eos/out/previous/cue/text", {cueText(previous_, std::nullopt).toStdString()}});
    for (const OSCMessage& text : texts) {
        if (client)
            send(client, text);
        else
            sendToAll(text);
    }
}

bool PretendConsole::fireCue(const QString& number)
{
    const auto& cues = cueList();
    const auto found = std::find_if(cues.begin(), cues.end(),
                                    [&](const Cue& cue) { return cue.number == number; });
    if (found == cues.end())
        return false;
    previous_ = active_;
    active_ = int(found - cues.begin());
    percent_ = found->seconds > 0 ? 0 : 100;
    sendToAll(OSCMessage{QStringLiteral("/eos/out/event/cue/1/%1/fire").arg(number).toStdString(), {}});
    for (int part = 1; part <= found->parts; ++part)
        sendToAll(OSCMessage{
            QStringLiteral("/eos/out/event/cue/1/%1/%2/fire").arg(number).arg(part).toStdString(),
            {}});
    sendCueTexts(nullptr);
    fade_.stop();
    if (percent_ < 100)
        fade_.startRepeating(Seconds(options_.fadeStepSeconds), [this] { stepFade(); });
    return true;
}

void PretendConsole::go()
{
    const int next = (active_ + 1) % int(cueList().size());
    fireCue(cueList()[std::size_t(next)].number);
}

void PretendConsole::stepFade()
{
    const double seconds = cueList()[std::size_t(active_)].seconds;
    const int step = std::max(1, int(std::lround(100.0 * options_.fadeStepSeconds / seconds)));
    percent_ = std::min(100, percent_ + step);
    for (const OSCMessage& text : activeCueTexts())
        sendToAll(text);
    if (percent_ >= 100)
        fade_.stop();
}

void PretendConsole::sendToAll(const OSCMessage& message)
{
    for (auto& client : clients_)
        send(client.get(), message);
}

void PretendConsole::send(Client* client, const OSCMessage& message)
{
    if (!options_.speaksEos)
        return;
    client->socket->write(frameOSCPacket(client->decoder.framing(), encodeOSC(message)));
}

} // namespace orvane
