// The web viewer's costs: JPEG encoding per frame straight from the frame's YUV planes (with
// the scaling of wider frames; `--benchmark_filter=encodeJpeg/1080` for the 1080p figure), the
// CPU of the whole viewer at 1, 10 and 50 viewers (curl processes reading the stream), and the
// latency from a frame's capture instant to the last byte of its part at a viewer.

#include "base/ManualClock.h"
#include "capture/Frame.h"
#include "capture/FramePool.h"
#include "capture/TestPatternSource.h"
#include "outputs/JpegEncoder.h"
#include "outputs/WebViewer.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTcpServer>

#include <benchmark/benchmark.h>

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <thread>
#include <vector>

using namespace orvane;

namespace {

// A test pattern frame (I420, as the camera's pool holds it) in a pool of its own.
struct OwnedFrame {
    std::unique_ptr<FramePool> pool;
    std::shared_ptr<Frame> frame;
    OwnedFrame(int width, int height, std::int64_t number)
        : pool(std::make_unique<FramePool>(width, height, 1))
        , frame(pool->acquire())
    {
        frame->frameDuration = 1.0 / 30;
        ManualClock clock;
        TestPatternSource(clock, width, height, 30, TestPatternSource::Pacing::stepped)
            .paint(*frame, number);
    }
};

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

int freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

// Eight different 1080p pictures, so that consecutive JPEGs differ.
std::vector<OwnedFrame> eightPictures()
{
    std::vector<OwnedFrame> pictures;
    for (int i = 0; i < 8; ++i)
        pictures.emplace_back(1920, 1080, i * 5);
    return pictures;
}

// Starts `viewer` on a free port and returns the port once it listens.
int startListening(WebViewer& viewer)
{
    const int port = freePort();
    viewer.start(port);
    while (viewer.state().kind != WebViewer::State::Kind::listening)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return port;
}

void encodeJpeg(benchmark::State& state)
{
    const int height = int(state.range(0));
    const int width = height * 16 / 9; // 1440 is a picture the general scaler takes
    OwnedFrame picture(width, height, 42);
    JpegEncoder encoder;
    qsizetype bytes = 0;
    for (auto _ : state) {
        const QByteArray jpeg = encoder.encode(*picture.frame);
        bytes = jpeg.size();
        benchmark::DoNotOptimize(jpeg.constData());
    }
    state.counters["jpeg_kB"] = double(bytes) / 1000;
}
BENCHMARK(encodeJpeg)->Arg(1080)->Arg(1440)->Arg(2160)->Unit(benchmark::kMillisecond);

// The whole viewer with N curl viewers for 10 s, 1080p frames at 30 a second. Reports the
// process's CPU (encode thread, web thread and the camera stand-in) as a share of one core.
void viewerCPU(benchmark::State& state)
{
    const int viewers = int(state.range(0));
    const std::vector<OwnedFrame> pictures = eightPictures();
    for (auto _ : state) {
        WebViewer viewer;
        const int port = startListening(viewer);
        std::vector<std::unique_ptr<QProcess>> curls;
        for (int i = 0; i < viewers; ++i) {
            curls.push_back(std::make_unique<QProcess>());
            curls.back()->start(QStringLiteral("curl"),
                                {"-s", "-o", "/dev/null", "--max-time", "30",
                                 QStringLiteral("http://127.0.0.1:%1/stream.mjpg").arg(port)});
        }
        while (viewer.viewers() < viewers)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const int encodedBefore = viewer.encodedFramesForTesting();
        const double cpuBefore = cpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        auto due = start;
        for (int i = 0; std::chrono::steady_clock::now() - start < std::chrono::seconds(10); ++i) {
            viewer.send(pictures[std::size_t(i) % pictures.size()].frame);
            due += std::chrono::microseconds(33333);
            std::this_thread::sleep_until(due);
        }
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const double cpu = cpuSeconds() - cpuBefore;
        state.SetIterationTime(seconds);
        state.counters["cpu_percent_of_a_core"] = 100 * cpu / seconds;
        state.counters["web_fps"] =
            double(viewer.encodedFramesForTesting() - encodedBefore) / seconds;
        state.counters["viewers"] = viewer.viewers();
        viewer.stop();
        for (auto& curl : curls)
            curl->waitForFinished(5000);
    }
}
BENCHMARK(viewerCPU)->Arg(1)->Arg(10)->Arg(50)->Iterations(1)->UseManualTime()->Unit(
    benchmark::kSecond);

// One viewer reading as fast as it can; a 1080p frame every 50 ms (never paced away), its
// capture instant taken just before send(). Reports the median and 95th percentile.
void glassToBrowser(benchmark::State& state)
{
    const std::vector<OwnedFrame> pictures = eightPictures();
    for (auto _ : state) {
        WebViewer viewer;
        const int port = startListening(viewer);

        // Each picture's JPEG has its own length, which tells which picture a part carries.
        std::map<qsizetype, std::size_t> pictureOfLength;
        JpegEncoder encoder;
        for (std::size_t i = 0; i < pictures.size(); ++i)
            pictureOfLength[encoder.encode(*pictures[i].frame).size()] = i;
        if (pictureOfLength.size() != pictures.size()) {
            state.SkipWithError("two pictures encode to the same length");
            return;
        }
        constexpr int kFrames = 200;
        std::vector<std::chrono::steady_clock::time_point> captured(kFrames);
        std::vector<std::pair<std::chrono::steady_clock::time_point, qsizetype>> received;
        std::atomic<bool> reading{true};
        std::thread reader([&] {
            const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(quint16(port));
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
            const char ask[] = "GET /stream.mjpg HTTP/1.1\r\n\r\n";
            ::send(fd, ask, sizeof ask - 1, 0);
            timeval wait{0, 200000};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
            QByteArray buffer;
            std::vector<char> chunk(1 << 20);
            bool headerDone = false;
            while (reading) {
                const ssize_t count = ::recv(fd, chunk.data(), chunk.size(), 0);
                if (count <= 0)
                    continue;
                buffer.append(chunk.data(), count);
                for (;;) {
                    if (!headerDone) {
                        const qsizetype end = buffer.indexOf("\r\n\r\n");
                        if (end < 0)
                            break;
                        buffer.remove(0, end + 4);
                        headerDone = true;
                    }
                    const qsizetype lengthAt = buffer.indexOf("Content-Length: ");
                    const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
                    if (lengthAt < 0 || headEnd < 0)
                        break;
                    const qsizetype length =
                        buffer.mid(lengthAt + 16, headEnd - lengthAt - 16).toLongLong();
                    if (buffer.size() < headEnd + 4 + length + 2)
                        break;
                    received.emplace_back(std::chrono::steady_clock::now(), length);
                    buffer.remove(0, headEnd + 4 + length + 2);
                }
            }
            ::close(fd);
        });
        while (viewer.viewers() < 1)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (int i = 0; i < kFrames; ++i) {
            captured[std::size_t(i)] = std::chrono::steady_clock::now();
            viewer.send(pictures[std::size_t(i) % pictures.size()].frame);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        reading = false;
        reader.join();
        // A part carries the newest frame of its picture captured before it arrived (a cycle
        // of pictures lasts 400 ms, far longer than any latency).
        std::vector<double> latencies;
        for (const auto& [at, length] : received) {
            const auto picture = pictureOfLength.find(length);
            if (picture == pictureOfLength.end())
                continue;
            for (int i = kFrames - 1; i >= 0; --i) {
                if (std::size_t(i) % pictures.size() == picture->second &&
                    captured[std::size_t(i)] <= at) {
                    latencies.push_back(
                        std::chrono::duration<double, std::milli>(at - captured[std::size_t(i)])
                            .count());
                    break;
                }
            }
        }
        std::sort(latencies.begin(), latencies.end());
        state.counters["frames"] = double(received.size());
        state.counters["matched"] = double(latencies.size());
        state.counters["encoded"] = viewer.encodedFramesForTesting();
        if (!latencies.empty()) {
            state.counters["median_ms"] = latencies[latencies.size() / 2];
            state.counters["p95_ms"] = latencies[latencies.size() * 95 / 100];
        }
        viewer.stop();
    }
}
BENCHMARK(glassToBrowser)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
