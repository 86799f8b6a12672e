#include "outputs/WebViewer.h"

#include "base/Checks.h"
#include "capture/Frame.h"
#include "outputs/JpegEncoder.h"
#include "outputs/WebRequest.h"
#include "outputs/WebServer.h"

#include <QThread>

namespace orvane {

WebViewer::WebViewer(Timeouts timeouts, Clock& clock, QObject* parent)
    : QObject(parent)
    , clock_(clock)
    , webThread_(std::make_unique<QThread>())
{
    qRegisterMetaType<orvane::WebViewer::State>();
    webThread_->setObjectName(QStringLiteral("web"));
    server_ = new WebServer(timeouts);
    server_->moveToThread(webThread_.get());
    connect(webThread_.get(), &QThread::finished, server_, &QObject::deleteLater);
    // Direct: these run on the web thread, and only store and re-emit.
    connect(
        server_, &WebServer::stateChanged, this, [this](const State& next) { setState(next); },
        Qt::DirectConnection);
    connect(
        server_, &WebServer::viewersChanged, this,
        [this](int viewers) {
            if (viewers_.exchange(viewers) != viewers)
                Q_EMIT viewersChanged(viewers);
        },
        Qt::DirectConnection);
    webThread_->start();
    encodeThread_ = std::thread([this] { encodeLoop(); });
}

WebViewer::~WebViewer()
{
    {
        std::lock_guard lock(encodeMutex_);
        stopping_ = true;
    }
    encodeWake_.notify_one();
    encodeThread_.join();
    QMetaObject::invokeMethod(
        server_, [server = server_] { server->close(); }, Qt::BlockingQueuedConnection);
    disconnect(server_, nullptr, this, nullptr);
    webThread_->quit();
    webThread_->wait();
}

void WebViewer::start(int port)
{
    assertOnOwnThread(this);
    if (port < 1 || port > 65535) {
        QMetaObject::invokeMethod(server_, [server = server_] {
            server->refuse(QStringLiteral("Choose a port between 1 and 65535."));
        });
        return;
    }
    QMetaObject::invokeMethod(server_, [server = server_, port] { server->listen(port); });
}

void WebViewer::stop()
{
    assertOnOwnThread(this);
    QMetaObject::invokeMethod(server_, [server = server_] { server->close(); });
}

void WebViewer::send(std::shared_ptr<const Frame> frame)
{
    if (viewers_.load(std::memory_order_relaxed) == 0 || !frame)
        return;
    const Instant now = clock_.now();
    {
        std::lock_guard lock(pacingMutex_);
        if (lastEncode_ != Instant{} && secondsBetween(lastEncode_, now) < kEncodeInterval)
            return;
        if (isEncoding_)
            return;
        lastEncode_ = now;
        isEncoding_ = true;
    }
    {
        std::lock_guard lock(encodeMutex_);
        pending_.swap(frame);
    }
    encodeWake_.notify_one();
    // `frame` now holds whatever was pending (nothing): released outside the lock.
}

WebViewer::State WebViewer::state() const
{
    std::lock_guard lock(stateMutex_);
    return state_;
}

void WebViewer::setState(const State& next)
{
    {
        std::lock_guard lock(stateMutex_);
        if (state_ == next)
            return;
        state_ = next;
    }
    Q_EMIT stateChanged(next);
}

void WebViewer::encodeLoop()
{
    JpegEncoder encoder;
    for (;;) {
        std::shared_ptr<const Frame> frame;
        {
            std::unique_lock lock(encodeMutex_);
            encodeWake_.wait(lock, [this] { return stopping_ || pending_; });
            if (stopping_)
                return;
            frame.swap(pending_);
        }
        const QByteArray jpeg = encoder.encode(*frame);
        frame.reset(); // the frame goes back to its camera's pool before the viewers get it
        if (!jpeg.isEmpty()) {
            auto part = std::make_shared<const QByteArray>(webStreamPart(jpeg));
            QMetaObject::invokeMethod(server_,
                                      [server = server_, part] { server->broadcast(part); });
            encoded_.fetch_add(1);
        }
        std::lock_guard lock(pacingMutex_);
        isEncoding_ = false;
    }
}

} // namespace orvane
