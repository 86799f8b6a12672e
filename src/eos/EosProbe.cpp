#include "eos/EosProbe.h"

#include "base/Checks.h"
#include "eos/NetworkSockets.h"
#include "osc/OSCMessageText.h"

#include <QSocketNotifier>

#include <cerrno>

#include <sys/socket.h>
#include <unistd.h>

namespace orvane {

EosProbe::EosProbe(Clock& clock, QObject* parent) : QObject(parent), timeout_(clock) {}

EosProbe::~EosProbe()
{
    closeSocket();
}

void EosProbe::start(std::uint32_t host, std::uint16_t port, const ScanTarget& via, Done done)
{
    assertOnOwnThread(this);
    if (!holds(!done_ && fd_ < 0, "a probe runs once"))
        return;
    done_ = std::move(done);
    timeout_.start(kTimeout, [this] { finish(); });
    fd_ = sockets::startTcpConnect(host, port, via);
    if (fd_ < 0) {
        // Report on the next turn of the event loop, never from inside start().
        QMetaObject::invokeMethod(this, [this] { finish(); }, Qt::QueuedConnection);
        return;
    }
    writable_ = new QSocketNotifier(fd_, QSocketNotifier::Write, this);
    connect(writable_, &QSocketNotifier::activated, this, [this] { onConnected(); });
}

void EosProbe::onConnected()
{
    writable_->setEnabled(false);
    if (sockets::pendingError(fd_) != 0) {
        finish();
        return;
    }
    readable_ = new QSocketNotifier(fd_, QSocketNotifier::Read, this);
    connect(readable_, &QSocketNotifier::activated, this, [this] { onReadable(); });
    QByteArray frames;
    for (const char* address : {"/eos/ping", "/eos/get/version", "/eos/reset"})
        frames += frameOSCPacket(OSCFraming::slip, encodeOSC(OSCMessage{address, {}}));
    // Three tiny frames fit any fresh socket buffer; a short write only loses the probe.
    if (::send(fd_, frames.constData(), std::size_t(frames.size()), MSG_NOSIGNAL) != frames.size())
        finish();
}

void EosProbe::onReadable()
{
    if (isFinished())
        return;
    char buffer[65536];
    const ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (got <= 0) {
        finish(); // failed or closed by the peer
        return;
    }
    for (const QByteArray& packet : decoder_.decode(QByteArrayView(buffer, got))) {
        for (const OSCMessage& message : decodeOSCPacket(packet))
            handle(message);
    }
    if (decoder_.isOutOfStep() || (isEos_ && hasShowName_))
        finish();
}

void EosProbe::handle(const OSCMessage& message)
{
    if (message.address.rfind("/eos/out/", 0) != 0)
        return;
    isEos_ = true;
    if (message.address == "/eos/out/show/name") {
        console_.showName = oscArgumentText(message, 0);
        hasShowName_ = true;
    } else if (message.address == "/eos/out/get/version") {
        console_.version = oscArgumentText(message, 0);
    }
}

void EosProbe::finish()
{
    if (isFinished())
        return;
    timeout_.stop();
    closeSocket();
    auto done = std::move(done_);
    done_ = nullptr;
    done(isEos_ ? std::optional<Result>(console_) : std::nullopt);
}

void EosProbe::closeSocket()
{
    // A notifier may be the one whose signal is running: disable it now, delete it later.
    for (QSocketNotifier** notifier : {&writable_, &readable_}) {
        if (*notifier) {
            (*notifier)->setEnabled(false);
            (*notifier)->deleteLater();
            *notifier = nullptr;
        }
    }
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

} // namespace orvane
