// From a cue on the wire to the recording: how long after a console's cue text is sent to
// Orvane's OSC listener as a real UDP datagram the first frame that shows the cue reaches the
// recorder. The whole application model runs as in a show: the 1080p30 test pattern camera,
// the overlay, an H.264 recording. A frame sink on the main camera, called with each frame
// right after the recorder took it, reads the overlay content that frame was drawn with, so
// what is timed is the frame that really carries the new cue. Cues are sent at random
// moments against the camera's frames. Target: one frame period plus 5 ms (38.3 ms).
// Also reported: the time to the show data's change on the main thread.
//
// `scripts/offline build/bench/bench_app_cue_to_overlay [--cues N]` (default 200). Not run by
// CTest.

#include "app/AppModel.h"
#include "capture/Frame.h"
#include "capture/FrameSink.h"
#include "osc/OSCMessage.h"
#include "overlay/OverlayContent.h"

#include <QEventLoop>
#include <QGuiApplication>
#include <QTemporaryDir>
#include <QTimer>
#include <QUdpSocket>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <numeric>
#include <random>
#include <vector>

using namespace orvane;
using Steady = std::chrono::steady_clock;

namespace {

constexpr double kFramePeriodMs = 1000.0 / 30;
constexpr double kTargetMs = kFramePeriodMs + 5;

// Notes when the first frame drawn with the awaited cue number arrives. Capture thread.
class CueWatch final : public FrameSink {
public:
    void await(const QString& number)
    {
        std::lock_guard lock(mutex_);
        awaited_ = number;
        seenAt_.reset();
    }
    std::optional<Steady::time_point> seenAt() const
    {
        std::lock_guard lock(mutex_);
        return seenAt_;
    }
    void takeFrame(std::shared_ptr<const Frame> frame, double) override
    {
        const auto now = Steady::now();
        const OverlayContent* drawn = frame->overlay.get();
        std::lock_guard lock(mutex_);
        if (seenAt_ || awaited_.isEmpty() || !drawn || !drawn->cue ||
            drawn->cue->number != awaited_)
            return;
        seenAt_ = now;
    }

private:
    mutable std::mutex mutex_;
    QString awaited_;
    std::optional<Steady::time_point> seenAt_;
};

// Runs the event loop until `done` or `limitMs` passed, looking every millisecond (asleep in
// between, so the looking takes no core from the camera); whether `done` came true.
template <class Done> bool runUntil(Done done, int limitMs)
{
    if (done())
        return true;
    QEventLoop loop;
    QTimer poll;
    poll.setTimerType(Qt::PreciseTimer);
    poll.setInterval(1);
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done())
            loop.quit();
    });
    QTimer::singleShot(limitMs, &loop, &QEventLoop::quit);
    poll.start();
    loop.exec();
    return done();
}

void pause(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

quint16 freeUdpPort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress::LocalHost, 0);
    return probe.localPort();
}

double msBetween(Steady::time_point from, Steady::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

void printSummary(const char* what, std::vector<double> ms)
{
    if (ms.empty())
        return;
    std::sort(ms.begin(), ms.end());
    const auto at = [&](double q) { return ms[std::size_t(q * double(ms.size() - 1))]; };
    const double mean = std::accumulate(ms.begin(), ms.end(), 0.0) / double(ms.size());
    std::printf("%-32s min %6.1f  median %6.1f  mean %6.1f  p95 %6.1f  max %6.1f ms\n", what,
                ms.front(), at(0.5), mean, at(0.95), ms.back());
}

} // namespace

int main(int argc, char** argv)
{
    int cues = 200;
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--cues") == 0 && i + 1 < argc)
            cues = std::max(1, std::atoi(argv[++i]));
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);

    QTemporaryDir folder;
    auto settings = std::make_unique<AppSettings>(
        AppSettings::Location{folder.filePath(QStringLiteral("Orvane.json")),
                              folder.filePath(QStringLiteral("support"))});
    const quint16 port = freeUdpPort();
    settings->setOscPort(port);
    settings->setEosEnabled(false);
    settings->setQlabEnabled(false);
    settings->setWebViewerEnabled(false);
    settings->setNdiEnabled(false);
    settings->setCodec(RecordingCodec::h264);
    RunOptions options;
    options.record = true;
    options.recordingsFolder = folder.filePath(QStringLiteral("Recordings"));
    AppModel model(std::move(settings), options);
    auto watch = std::make_shared<CueWatch>();
    model.engine().addSink(watch);

    // The show data's change, on the main thread.
    std::optional<Steady::time_point> handledAt;
    QString awaited;
    QObject::connect(&model.show(), &ShowData::activeCueChanged, &model, [&] {
        const auto cue = model.show().activeCue();
        if (cue && cue->token() == awaited && !handledAt)
            handledAt = Steady::now();
    });

    model.start();
    if (!runUntil([&] { return model.isRecording(); }, 20000)) {
        std::fprintf(stderr, "bench_app_cue_to_overlay: the recording did not start\n");
        return 1;
    }
    pause(1000); // past the encoder's start

    QUdpSocket console;
    std::mt19937 random(47);
    std::uniform_int_distribution<int> gapMs(0, int(2 * kFramePeriodMs));
    std::vector<double> toFrame;
    std::vector<double> toShow;
    int missed = 0;
    for (int n = 1; n <= cues; ++n) {
        awaited = QStringLiteral("1/%1").arg(n);
        handledAt.reset();
        watch->await(awaited);
        const QByteArray datagram = encodeOSC(
            OSCMessage{"/eos/out/active/cue/text",
                       {(QStringLiteral("%1 Cue %2 3 0%").arg(awaited).arg(n)).toStdString()}});
        const auto sentAt = Steady::now();
        console.writeDatagram(datagram, QHostAddress::LocalHost, port);
        if (!runUntil([&] { return watch->seenAt().has_value(); }, 2000)) {
            ++missed;
            continue;
        }
        toFrame.push_back(msBetween(sentAt, *watch->seenAt()));
        if (handledAt)
            toShow.push_back(msBetween(sentAt, *handledAt));
        pause(gapMs(random));
    }
    const CaptureStats stats = model.engine().stats();
    bool stopped = false;
    model.stopRecording([&] { stopped = true; });
    runUntil([&] { return stopped; }, 60000);

    std::printf("%d cues through the model at 1080p30, recording H.264; target %.1f ms\n", cues,
                kTargetMs);
    printSummary("datagram to show data", toShow);
    printSummary("datagram to recorded frame", toFrame);
    const auto over =
        std::count_if(toFrame.begin(), toFrame.end(), [](double ms) { return ms > kTargetMs; });
    std::printf("over the target: %lld of %zu; never seen: %d; frames lost: %d (%d by the "
                "recorder)\n",
                static_cast<long long>(over), toFrame.size(), missed, stats.droppedFrames,
                stats.encoderDroppedFrames);
    return missed == 0 ? 0 : 1;
}
