#include "app/ShowInput.h"

#include "base/Checks.h"
#include "eos/EosConnection.h"
#include "show/ShowData.h"

#include <QLoggingCategory>

namespace orvane {

namespace {
Q_LOGGING_CATEGORY(lcShowInput, "orvane.show", QtInfoMsg)
} // namespace

ShowInput::ShowInput(ShowData& show, Clock& clock, QObject* parent)
    : QObject(parent)
    , show_(show)
    , listener_(clock, this)
{
    listener_.setOnPacket([this](const QByteArray& datagram, const OSCListener::Sender& from) {
        receive(datagram, Sender{from.host, from.address, from.port});
    });
    show_.setOnCommand([this](const ShowCommand& command) {
        // Commands are raised while a message is handed on, so its sender is known.
        if (onCommand_ && handing_)
            onCommand_(command, *handing_);
    });
}

ShowInput::~ShowInput()
{
    show_.setOnCommand(nullptr);
}

void ShowInput::receive(const QByteArray& packet, const Sender& sender)
{
    assertOnOwnThread(this);
    const std::vector<OSCMessage> messages = decodeOSCPacket(packet);
    if (messages.empty())
        qCDebug(lcShowInput, "show: dropped %lld-byte packet from %s: no OSC message in it",
                qlonglong(packet.size()), qPrintable(sender.host));
    for (const OSCMessage& message : messages)
        receive(message, sender);
}

void ShowInput::receive(const OSCMessage& message, const Sender& sender)
{
    assertOnOwnThread(this);
    const Sender* outer = std::exchange(handing_, &sender);
    show_.handle(message, sender.host);
    handing_ = outer;
    if (onAnswerOwed_ && sender.port != 0 && !sender.address.isNull() && owesAnswer(message))
        onAnswerOwed_(sender);
}

bool ShowInput::owesAnswer(const OSCMessage& message)
{
    const QString address = QString::fromStdString(message.address);
    if (!address.startsWith(u"/tavrin/", Qt::CaseInsensitive))
        return false;
    const QList<QStringView> words = QStringView(address).split(u'/', Qt::SkipEmptyParts);
    return words.size() >= 2 && words[1].compare(u"field", Qt::CaseInsensitive) != 0 &&
           words[1].compare(u"reply", Qt::CaseInsensitive) != 0;
}

void ShowInput::takePacketsFrom(EosConnection& connection)
{
    connection.setOnPacket([this](const QByteArray& packet, const QString& host) {
        receive(packet, Sender{host, QHostAddress(host), 0});
    });
}

DemoShow::Deliver ShowInput::demoDelivery()
{
    return [this](const OSCMessage& message) {
        receive(message, Sender{DemoShow::kSender, {}, 0});
    };
}

void ShowInput::setOnCommand(std::function<void(const ShowCommand&, const Sender&)> onCommand)
{
    onCommand_ = std::move(onCommand);
}

void ShowInput::setOnAnswerOwed(std::function<void(const Sender&)> onAnswerOwed)
{
    onAnswerOwed_ = std::move(onAnswerOwed);
}

} // namespace orvane
