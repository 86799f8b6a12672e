#pragma once

#include <QObject>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "outputs/NDIApi.h"

namespace orvane {

class NDILibrary;
struct Frame;

// The NDI frame rate announced for a frame duration in seconds: whole rates as N/1, the
// broadcast rates (29.97 and the like) as N*1000/1001, any other as a rate in thousandths;
// 30/1 when the duration is not a usable one. Pure.
struct NDIFrameRate {
    int numerator = 30;
    int denominator = 1;
    friend bool operator==(const NDIFrameRate&, const NDIFrameRate&) = default;
};
NDIFrameRate ndiFrameRate(double frameDuration);

// The version-2 video frame that sends `frame` as it is (I420, progressive, square pixels,
// time code made by the runtime). Pure; the frame must outlive the result.
NDIlib_video_frame_v2_t ndiVideoFrame(const Frame& frame, double frameDuration);

// One NDI sender, on a thread of its own ("the NDI thread") on which every call into the
// runtime is made. start(), stop() and pollReceivers() from the owner's thread; send() from
// any thread (the capture thread). Signals are emitted on the NDI thread.
class NDIOutput : public QObject {
    Q_OBJECT

public:
    explicit NDIOutput(QObject* parent = nullptr);
    ~NDIOutput() override;

    // Makes a sender named `name` ("Orvane" when empty) with `library`; startFinished tells
    // whether there is one.
    void start(std::shared_ptr<const NDILibrary> library, const QString& name);
    void stop();
    // Sends `frame` when a sender runs and no other frame is in flight; else drops it.
    void send(std::shared_ptr<const Frame> frame, double frameDuration);
    // Asks the runtime for the number of receivers; receiversChanged follows on a change.
    void pollReceivers();

    bool isRunning() const { return isRunning_.load(); }
    int receivers() const { return receivers_.load(); }

Q_SIGNALS:
    void startFinished(bool running);
    void receiversChanged(int receivers);

private:
    void post(std::function<void()> command);
    void run();
    void stopSender();
    void sendNow(const Frame& frame, double frameDuration);

    std::atomic<bool> isBusy_{false};
    std::atomic<bool> isRunning_{false};
    std::atomic<int> receivers_{0};

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> commands_;
    std::shared_ptr<const Frame> pendingFrame_;
    double pendingDuration_ = 0;
    bool stopping_ = false;

    // NDI thread only.
    std::shared_ptr<const NDILibrary> library_;
    NDIlib_send_instance_t sender_ = nullptr;

    std::thread thread_;
};

} // namespace orvane
