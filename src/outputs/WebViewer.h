#pragma once

#include "base/Clock.h"

#include <QMetaType>
#include <QObject>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

class QThread;

namespace orvane {

class WebServer;
struct Frame;

// How long a viewer may take to send its request, and to take one frame, before it is dropped.
struct WebViewerTimeouts {
    double request = 10;
    double stalledSend = 5;
};

// The web viewer: a small HTTP/1.1 server that serves the viewing page at "/" and the
// composited picture as a Motion-JPEG stream at "/stream.mjpg" to browsers on the local
// network. Connections live on the web thread, JPEG encoding on the web-encode thread; one
// JPEG is shared by every viewer, and frames that arrive while one is encoded are dropped.
// start(), stop() and the destructor on the owner's thread; send(), state() and viewers() from
// any thread. Signals are emitted on the web thread.
class WebViewer : public QObject {
    Q_OBJECT

public:
    struct State {
        enum class Kind { off, listening, failed };
        Kind kind = Kind::off;
        int port = 0;    // listening: the port actually bound
        QString message; // failed: the sentence shown to the user
        static State listening(int port) { return {Kind::listening, port, {}}; }
        static State failed(QString message) { return {Kind::failed, 0, std::move(message)}; }
        friend bool operator==(const State&, const State&) = default;
    };

    using Timeouts = WebViewerTimeouts;

    // At most one frame is encoded per this many seconds (25 frames a second).
    static constexpr double kEncodeInterval = 0.04;

    explicit WebViewer(Timeouts timeouts = {}, Clock& clock = Clock::system(),
                       QObject* parent = nullptr);
    ~WebViewer() override;

    // Listens on `port` on every interface; the state becomes listening or failed.
    void start(int port);
    // Closes the listener and every viewer; the state becomes off.
    void stop();

    // Offers one composited frame. Returns at once; does nothing when nobody watches, when the
    // previous frame was taken less than 0.04 s ago or while an encode is still running.
    void send(std::shared_ptr<const Frame> frame);

    State state() const;
    int viewers() const { return viewers_.load(std::memory_order_relaxed); }

    // Frames encoded since the viewer was made.
    int encodedFramesForTesting() const { return encoded_.load(); }

Q_SIGNALS:
    void stateChanged(const orvane::WebViewer::State& state);
    void viewersChanged(int viewers);

private:
    void encodeLoop();
    void setState(const State& state);

    Clock& clock_;
    std::atomic<int> viewers_{0};
    std::atomic<int> encoded_{0};

    mutable std::mutex stateMutex_;
    State state_;

    std::mutex pacingMutex_; // guards lastEncode_ and isEncoding_
    Instant lastEncode_{};
    bool isEncoding_ = false;

    // The web-encode thread and the one frame it may be given.
    std::mutex encodeMutex_;
    std::condition_variable encodeWake_;
    std::shared_ptr<const Frame> pending_;
    bool stopping_ = false;
    std::thread encodeThread_;

    // The web thread and the server that lives on it.
    std::unique_ptr<QThread> webThread_;
    WebServer* server_ = nullptr;
};

} // namespace orvane

Q_DECLARE_METATYPE(orvane::WebViewer::State)
