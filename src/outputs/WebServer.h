#pragma once

#include "base/Clock.h"
#include "outputs/WebViewer.h"

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QTimer>

#include <map>
#include <memory>

class QSocketNotifier;

namespace orvane {

// The web viewer's connections: the listening socket and one Client per browser, answered by
// the rules of WebRequest.h. Lives on the web thread; every method runs there.
class WebServer : public QObject {
    Q_OBJECT

public:
    explicit WebServer(WebViewer::Timeouts timeouts);
    ~WebServer() override;

    void listen(int port);
    void close();
    // Closes the server and reports `message` as its failure.
    void refuse(const QString& message);
    // Sends one stream part to every streaming viewer that is not still busy with the last.
    void broadcast(const std::shared_ptr<const QByteArray>& part);

Q_SIGNALS:
    void stateChanged(const orvane::WebViewer::State& state);
    void viewersChanged(int viewers);

private:
    struct Client {
        int fd = -1;
        QSocketNotifier* reader = nullptr;
        QSocketNotifier* writer = nullptr;
        QByteArray request;
        bool isAnswered = false;
        bool isStreaming = false;
        bool isSending = false;
        bool isClosing = false; // the answer is out; waiting for the browser to hang up
        bool closeAfterSend = false;
        Instant acceptedAt{};
        Instant sendStarted{};
        Instant closingSince{};
        std::shared_ptr<const QByteArray> outgoing;
        qsizetype sent = 0;
    };

    void acceptAll();
    void admit(int fd, const QHostAddress& peer);
    void readFrom(int fd);
    void startSending(Client& client, std::shared_ptr<const QByteArray> bytes);
    void flush(int fd);
    void finishAnswer(Client& client);
    void remove(int fd);
    void sweep();
    void publishViewers();

    WebViewer::Timeouts timeouts_;
    int listener_ = -1;
    int port_ = 0;
    QSocketNotifier* listenerNotifier_ = nullptr;
    std::map<int, std::unique_ptr<Client>> clients_;
    int viewers_ = 0;
    QTimer sweepTimer_{this};
};

} // namespace orvane
