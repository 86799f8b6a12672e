#include "app/SurfaceReplies.h"

#include "app/CueLog.h"
#include "base/Checks.h"

#include <QDir>
#include <QFileInfo>
#include <QStorageInfo>

#include <algorithm>
#include <climits>
#include <cmath>

namespace orvane {

namespace {

// A surface that has not asked for an hour is no longer told.
constexpr double kForgetSurfaceSeconds = 3600;
// Enough for a booth's surfaces; the one silent longest makes room.
constexpr int kMaxSurfaces = 16;

OSCMessage reply(const char* what, OSCArgument value)
{
    return OSCMessage{std::string("/tavrin/reply/") + what, {std::move(value)}};
}

} // namespace

SurfaceReplies::SurfaceReplies(std::function<State()> state, Send send, Clock& clock,
                               QObject* parent)
    : QObject(parent)
    , state_(std::move(state))
    , send_(std::move(send))
    , clock_(clock)
{
}

std::vector<OSCMessage> SurfaceReplies::messages(const State& state,
                                                 const std::optional<QString>& failure)
{
    const double elapsed = state.isRecording ? state.elapsed : 0;
    std::vector<OSCMessage> messages{
        reply("recording", std::int32_t(state.isRecording ? 1 : 0)),
        reply("time", cueLogTime(elapsed).toStdString()),
        reply("seconds", std::int32_t(std::clamp(std::floor(elapsed), 0.0, double(INT_MAX)))),
        reply("movie", state.movie.toStdString()),
    };
    if (state.minutesLeft)
        messages.push_back(reply("minutesleft", std::int32_t(*state.minutesLeft)));
    if (failure)
        messages.push_back(reply("error", failure->toStdString()));
    return messages;
}

void SurfaceReplies::answer(const QHostAddress& address, quint16 port,
                            const std::optional<QString>& failure)
{
    assertOnOwnThread(this);
    const Instant now = clock_.now();
    auto known = std::find_if(surfaces_.begin(), surfaces_.end(), [&](const Surface& s) {
        return s.port == port && s.address.isEqual(address);
    });
    if (known != surfaces_.end()) {
        known->lastAsked = now;
    } else {
        if (surfaces_.size() >= kMaxSurfaces)
            surfaces_.erase(std::min_element(
                surfaces_.begin(), surfaces_.end(),
                [](const Surface& a, const Surface& b) { return a.lastAsked < b.lastAsked; }));
        surfaces_.append({address, port, now});
    }
    sendTo({address, port, now}, messages(state_(), failure.value_or(QString())));
}

void SurfaceReplies::tellAll()
{
    assertOnOwnThread(this);
    const Instant now = clock_.now();
    surfaces_.removeIf([&](const Surface& surface) {
        return secondsBetween(surface.lastAsked, now) > kForgetSurfaceSeconds;
    });
    if (surfaces_.isEmpty())
        return;
    const auto told = messages(state_(), std::nullopt);
    for (const Surface& surface : std::as_const(surfaces_))
        sendTo(surface, told);
}

void SurfaceReplies::sendTo(const Surface& surface, const std::vector<OSCMessage>& messages)
{
    // One datagram a value: a surface that reads one value per address needs no bundles.
    for (const OSCMessage& message : messages)
        if (!send_(encodeOSC(message), surface.address, surface.port))
            return; // not listening any more, or the surface is gone: nothing to tell
}

std::optional<int> minutesOfDisk(qint64 freeBytes, double bytesPerSecond)
{
    if (freeBytes < 0 || !(bytesPerSecond > 0))
        return std::nullopt;
    const double minutes = double(freeBytes) / bytesPerSecond / 60;
    return int(std::min(std::floor(minutes), double(INT_MAX)));
}

double estimatedBytesPerSecond(RecordingCodec codec, QSize size, double framesPerSecond)
{
    // Generous figures for a camera at 1080p30 with the recorder's settings (x264 veryfast and
    // x265 ultrafast at their default quality, ProRes 422 Proxy near its nominal 45 Mbit/s):
    // the quality settings make the rate follow the picture, and a minute too few is better
    // than a minute too many. Five seconds into a recording the real rate takes over.
    double megabitsAt1080p30 = 0;
    switch (codec) {
    case RecordingCodec::h264:
        megabitsAt1080p30 = 12;
        break;
    case RecordingCodec::hevc:
        megabitsAt1080p30 = 8;
        break;
    case RecordingCodec::proRes422Proxy:
        megabitsAt1080p30 = 50;
        break;
    }
    const double share =
        double(size.width()) * size.height() * framesPerSecond / (1920.0 * 1080.0 * 30.0);
    return megabitsAt1080p30 * 1e6 / 8 * share;
}

std::optional<qint64> freeBytesAt(const QString& folder)
{
    // The folder may not be made yet: the nearest folder above it that exists tells.
    QDir dir(QFileInfo(folder).absoluteFilePath());
    while (!dir.exists() && !dir.isRoot())
        dir.setPath(QFileInfo(dir.path()).absolutePath());
    const QStorageInfo storage(dir.path());
    if (!storage.isValid() || !storage.isReady())
        return std::nullopt;
    return storage.bytesAvailable();
}

} // namespace orvane
