#include "osc/OSCStream.h"

#include "base/Checks.h"
#include "osc/TcpConnection.h"

#include <QLoggingCategory>

#include <array>

namespace orvane {

namespace {

Q_LOGGING_CATEGORY(lcStream, "orvane.osc")

const char* name(OSCStream::Failure::Kind kind)
{
    using Kind = OSCStream::Failure::Kind;
    switch (kind) {
    case Kind::other:
        return "other";
    case Kind::refused:
        return "refused";
    case Kind::noAnswer:
        return "noAnswer";
    case Kind::unreachable:
        return "unreachable";
    case Kind::unknownHost:
        return "unknownHost";
    case Kind::closedByPeer:
        return "closedByPeer";
    case Kind::wentQuiet:
        return "wentQuiet";
    case Kind::invalidPort:
        return "invalidPort";
    case Kind::wrongProtocol:
        return "wrongProtocol";
    }
    return "?";
}

} // namespace

OSCStream::OSCStream(Clock& clock, QObject* parent)
    : QObject(parent)
    , clock_(clock)
    , retryTimer_(clock)
    , keepAliveTimer_(clock)
    , connectTimer_(clock)
{
}

OSCStream::~OSCStream()
{
    tearDown();
}

Seconds OSCStream::retryDelay(int failures)
{
    static constexpr std::array<double, 5> kDelays{1, 2, 3, 5, 8};
    if (failures >= 1 && failures <= int(kDelays.size()))
        return Seconds(kDelays[size_t(failures - 1)]);
    return Seconds(10);
}

void OSCStream::connectTo(const Target& target)
{
    assertOnOwnThread(this);
    if (target_ == target && status_.kind != Status::Kind::idle)
        return;
    target_ = target;
    failures_ = 0;
    attempt();
}

void OSCStream::disconnect()
{
    assertOnOwnThread(this);
    tearDown();
    target_.reset();
    failures_ = 0;
    setStatus({});
}

void OSCStream::retryNow()
{
    assertOnOwnThread(this);
    if (target_ && status_.kind == Status::Kind::retrying)
        attempt();
}

void OSCStream::send(const OSCMessage& message)
{
    assertOnOwnThread(this);
    if (status_.kind != Status::Kind::ready || !connection_ || !target_)
        return;
    connection_->write(frameOSCPacket(target_->framing, encodeOSC(message)));
}

void OSCStream::setOnStatusChange(std::function<void(const Status&)> callback)
{
    assertOnOwnThread(this);
    onStatusChange_ = std::move(callback);
}

void OSCStream::setOnReady(std::function<void()> callback)
{
    assertOnOwnThread(this);
    onReady_ = std::move(callback);
}

void OSCStream::setOnPacket(std::function<void(const QByteArray&)> callback)
{
    assertOnOwnThread(this);
    onPacket_ = std::move(callback);
}

void OSCStream::setKeepAlive(std::optional<OSCMessage> message, std::function<void()> callback)
{
    assertOnOwnThread(this);
    keepAliveMessage_ = std::move(message);
    keepAliveCallback_ = std::move(callback);
}

void OSCStream::setKeepAliveInterval(Seconds interval)
{
    assertOnOwnThread(this);
    keepAliveInterval_ = interval;
}

void OSCStream::setSilenceTimeout(std::optional<Seconds> timeout)
{
    assertOnOwnThread(this);
    silenceTimeout_ = timeout;
}

void OSCStream::attempt()
{
    tearDown();
    if (!target_) {
        setStatus({});
        return;
    }
    if (target_->port < 1 || target_->port > 65535) {
        fail({Failure::Kind::invalidPort, {}});
        return;
    }
    decoder_ = OSCStreamDecoder(target_->framing);
    setStatus({Status::Kind::connecting, {}, 0});
    if (status_.kind != Status::Kind::connecting)
        return; // the status callback changed course

    const quint64 generation = generation_;
    TcpConnection::Handlers handlers;
    handlers.connected = [this, generation] {
        if (generation == generation_)
            becomeReady();
    };
    handlers.received = [this, generation](QByteArrayView chunk) {
        if (generation == generation_)
            receive(chunk);
    };
    handlers.failed = [this, generation](const Failure& failure) {
        if (generation == generation_)
            fail(failure);
    };
    connection_ = new TcpConnection(std::move(handlers), this);
    connectTimer_.start(kConnectTimeout, [this] { fail({Failure::Kind::noAnswer, {}}); });
    connection_->start(target_->host, quint16(target_->port), target_->interfaceType);
}

void OSCStream::tearDown()
{
    ++generation_;
    retryTimer_.stop();
    keepAliveTimer_.stop();
    connectTimer_.stop();
    if (!connection_)
        return;
    // The connection may be the caller further up the stack: it closes and frees itself
    // later, after the peer has read what was written ("/disconnect", a last message).
    connection_->closeGracefully();
    connection_ = nullptr;
}

void OSCStream::fail(Failure failure)
{
    tearDown();
    ++failures_;
    if (target_)
        qCInfo(lcStream).noquote()
            << QStringLiteral("osc: link to %1:%2 failed (%3%4), attempt %5")
                   .arg(target_->host)
                   .arg(target_->port)
                   .arg(QString::fromLatin1(name(failure.kind)))
                   .arg(failure.text.isEmpty() ? QString() : ": " + failure.text)
                   .arg(failures_);
    const int failures = failures_;
    setStatus({Status::Kind::retrying, std::move(failure), failures});
    if (status_.kind != Status::Kind::retrying || failures_ != failures)
        return; // the status callback changed course
    retryTimer_.start(retryDelay(failures), [this] { attempt(); });
}

void OSCStream::becomeReady()
{
    connectTimer_.stop();
    failures_ = 0;
    lastReceived_ = clock_.now();
    const quint64 generation = generation_;
    setStatus({Status::Kind::ready, {}, 0});
    if (generation != generation_)
        return;
    if (onReady_)
        onReady_();
    if (generation != generation_)
        return;
    keepAliveTimer_.startRepeating(keepAliveInterval_, [this] { keepAliveTick(); });
}

void OSCStream::receive(QByteArrayView chunk)
{
    const QByteArrayList packets = decoder_.decode(chunk);
    const quint64 generation = generation_;
    if (!packets.isEmpty())
        lastReceived_ = clock_.now();
    for (const QByteArray& packet : packets) {
        if (onPacket_)
            onPacket_(packet);
        if (generation != generation_)
            return; // the callback closed or replaced the link
    }
    if (decoder_.isOutOfStep())
        fail({Failure::Kind::wrongProtocol, {}});
}

void OSCStream::keepAliveTick()
{
    const quint64 generation = generation_;
    if (keepAliveMessage_)
        send(*keepAliveMessage_);
    if (keepAliveCallback_)
        keepAliveCallback_();
    if (generation != generation_)
        return;
    if (silenceTimeout_ && Seconds(secondsBetween(lastReceived_, clock_.now())) > *silenceTimeout_)
        fail({Failure::Kind::wentQuiet, {}});
}

void OSCStream::setStatus(Status status)
{
    if (status == status_)
        return;
    status_ = std::move(status);
    if (onStatusChange_)
        onStatusChange_(status_);
}

} // namespace orvane
