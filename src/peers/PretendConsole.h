#pragma once

#include "base/Clock.h"
#include "osc/OSCFraming.h"
#include "osc/OSCMessage.h"

#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <vector>

class QTcpServer;
class QTcpSocket;
class QUdpSocket;

namespace orvane {

// A pretend Eos lighting console for tests and for trying Orvane without one. It speaks OSC 1.1
// (SLIP frames) on TCP 3037 and OSC 1.0 (length-prefixed) on TCP 3032, answers "/eos/ping",
// "/eos/get/version" and "/eos/reset" as a console does, fires cues from a small cue list (one
// of them in three parts) with their fire events and cue texts whose percent counts up, and
// answers discovery requests on UDP 3034. Main thread only.
class PretendConsole : public QObject {
    Q_OBJECT
public:
    struct Options {
        QHostAddress address = QHostAddress(QHostAddress::AnyIPv4);
        quint16 slipPort = 3037;
        quint16 lengthPort = 3032;
        quint16 discoveryPort = 3034;
        bool listens = true;          // false: no TCP at all
        bool answersDiscovery = true; // false: a console whose discovery answering is off
        bool speaksEos = true;        // false: a TCP service that answers in plain text only
        QString showName = QStringLiteral("Pretend Show");
        QString deviceName = QStringLiteral("Pretend Eos");
        QString consoleID = QStringLiteral("PRETEND-EOS-1");
        QString version = QStringLiteral("3.2.10.34");
        int replyArguments = 4;       // arguments of each discovery reply (1 to 4)
        int repliesPerRequest = 1;    // a console that answers the same request twice
        double fadeStepSeconds = 0.1; // how often a running cue's percent is sent
    };
    struct Cue {
        QString number;
        QString label;
        double seconds;
        int parts = 0; // a multipart cue: parts 1 to `parts` fire together, each with its text
    };
    // Makes the sockets; the default is ::socket(AF_INET, type, 0) in this process's network.
    using SocketFactory = std::function<int(int type)>;

    explicit PretendConsole(Options options, Clock& clock = Clock::system(),
                            QObject* parent = nullptr);
    ~PretendConsole() override;

    void setSocketFactory(SocketFactory factory) { socketFactory_ = std::move(factory); }
    // Opens its ports. False with `error` when one cannot be opened.
    bool start(QString* error = nullptr);
    // Closes every port and connection.
    void stop();
    // Reopens its ports on `address`: the console's address changed.
    bool moveTo(const QHostAddress& address, QString* error = nullptr);

    // Fires cue `number` of list 1 (as the console's Go or a cue fire command does).
    bool fireCue(const QString& number);
    // Fires the cue after the active one, starting over after the last.
    void go();

    const Options& options() const { return options_; }
    static const std::vector<Cue>& cueList();
    int connectionCount() const { return int(clients_.size()); }
    int connectionsAccepted() const { return connectionsAccepted_; }
    int discoveryRequests() const { return discoveryRequests_; }
    QStringList receivedAddresses() const { return received_; }

Q_SIGNALS:
    void messageReceived(const QString& address);
    void clientConnected();

private:
    struct Client;
    bool listen(OSCFraming framing, quint16 port, QString* error);
    bool openDiscovery(QString* error);
    void accept(QTcpServer* server, OSCFraming framing);
    void readClient(Client* client);
    void handle(Client* client, const OSCMessage& message);
    void answerDiscovery();
    void sendToAll(const OSCMessage& message);
    void send(Client* client, const OSCMessage& message);
    void sendCueTexts(Client* client);
    void stepFade();
    QString cueText(int index, std::optional<int> percent, int part = 0) const;
    // The active cue's text, one line per part for a multipart cue.
    std::vector<OSCMessage> activeCueTexts() const;
    int socket(int type) const;

    Options options_;
    Clock& clock_;
    Timer fade_;
    SocketFactory socketFactory_;
    std::vector<QTcpServer*> servers_;
    QUdpSocket* discovery_ = nullptr;
    QUdpSocket* replies_ = nullptr;
    std::vector<std::unique_ptr<Client>> clients_;
    int active_ = -1;
    int previous_ = -1;
    int percent_ = 100;
    int connectionsAccepted_ = 0;
    int discoveryRequests_ = 0;
    QStringList received_;
};

} // namespace orvane
