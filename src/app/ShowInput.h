#pragma once

#include "base/Clock.h"
#include "osc/OSCListener.h"
#include "osc/OSCMessage.h"
#include "show/DemoShow.h"
#include "show/ShowCommand.h"

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QString>

#include <functional>

namespace orvane {

class EosConnection;
class ShowData;

// The one door into the show data: every OSC packet or message for the show comes in here
// with its sender, is decoded once, and is handed to the show data. Owns Orvane's UDP
// listener; takes the Eos link's packets and the demo show's messages. The show's commands
// come out with the sender, and a UDP sender of a "/tavrin/" message is owed an answer once
// the message is handled. Main thread only.
class ShowInput : public QObject {
    Q_OBJECT
public:
    // Where a packet came from.
    struct Sender {
        QString host;         // as the show data records it: "192.168.1.20", a console, "Demo"
        QHostAddress address; // where an answer goes; null for the demo show
        quint16 port = 0;     // a UDP sender's port; 0 for the Eos link and the demo show
        friend bool operator==(const Sender&, const Sender&) = default;
    };

    // Feeds `show`, which must outlive this input; takes over its command hand-off.
    explicit ShowInput(ShowData& show, Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~ShowInput() override;

    // The UDP listener; configure it from the settings.
    OSCListener& listener() { return listener_; }
    ShowData& show() { return show_; }

    // Decodes `packet` (bundles flattened) and hands each message on in order; a packet that
    // does not decode is dropped.
    void receive(const QByteArray& packet, const Sender& sender);
    // Hands on one message that is already decoded (the demo show's).
    void receive(const OSCMessage& message, const Sender& sender);

    // Takes every packet that `connection` receives, with the console's host as the sender.
    void takePacketsFrom(EosConnection& connection);
    // What a demo show delivers its messages through: DemoShow demo(input.demoDelivery()).
    DemoShow::Deliver demoDelivery();

    // Called with every "/tavrin/" command and the sender of the message that raised it.
    void setOnCommand(std::function<void(const ShowCommand&, const Sender&)> onCommand);
    // Called once a message under "/tavrin/" from a UDP sender is handled, its command carried
    // out: the sender is owed an answer. Fields and answers ("/tavrin/field/…",
    // "/tavrin/reply/…") are owed none, so two answering peers never talk in a loop.
    void setOnAnswerOwed(std::function<void(const Sender&)> onAnswerOwed);
    static bool owesAnswer(const OSCMessage& message);

private:
    ShowData& show_;
    OSCListener listener_;
    const Sender* handing_ = nullptr; // the sender of the message being handed on
    std::function<void(const ShowCommand&, const Sender&)> onCommand_;
    std::function<void(const Sender&)> onAnswerOwed_;
};

} // namespace orvane
