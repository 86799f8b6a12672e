#pragma once

#include "base/Clock.h"
#include "osc/OSCMessage.h"
#include "settings/RecordingCodec.h"

#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QSize>
#include <QString>

#include <functional>
#include <optional>
#include <vector>

namespace orvane {

// Answers control surfaces (Companion, TouchOSC, a QLab that listens): a surface that sends
// a "/tavrin/" command, or "/tavrin/state" to ask, gets the recording state back as plain OSC
// over UDP at the address and port it sent from, one value per address, with the sentence of
// a command that could not be carried out. Surfaces that asked within the last hour hear the
// state again whenever recording starts or stops. Main thread only.
class SurfaceReplies : public QObject {
    Q_OBJECT
public:
    // What an answer says, gathered at the moment it is sent.
    struct State {
        bool isRecording = false;
        double elapsed = 0;             // seconds into the running recording
        QString movie;                  // the main movie's file name: the running or the last
        std::optional<int> minutesLeft; // of disk in the recordings folder; none when unknown
    };
    // Sends one datagram; false when it could not.
    using Send = std::function<bool(const QByteArray&, const QHostAddress&, quint16)>;

    SurfaceReplies(std::function<State()> state, Send send, Clock& clock = Clock::system(),
                   QObject* parent = nullptr);

    // Answers the surface at `address` and `port` with the state now and `failure`, the
    // sentence of its command that could not be carried out (an empty "error" otherwise).
    void answer(const QHostAddress& address, quint16 port,
                const std::optional<QString>& failure = std::nullopt);
    // Tells every surface that asked within the last hour the state now, without "error".
    void tellAll();

    // The answer's messages, in the order they are sent.
    static std::vector<OSCMessage> messages(const State& state,
                                            const std::optional<QString>& failure);

private:
    struct Surface {
        QHostAddress address;
        quint16 port = 0;
        Instant lastAsked{};
    };
    void sendTo(const Surface& surface, const std::vector<OSCMessage>& messages);

    std::function<State()> state_;
    Send send_;
    Clock& clock_;
    QList<Surface> surfaces_;
};

// The minutes of recording that `freeBytes` hold at `bytesPerSecond`; none when either is
// unknown.
std::optional<int> minutesOfDisk(qint64 freeBytes, double bytesPerSecond);
// What one camera of `size` at `framesPerSecond` writes a second in `codec`, on the high
// side, for the time before a recording shows its real rate.
double estimatedBytesPerSecond(RecordingCodec codec, QSize size, double framesPerSecond);
// The free bytes where `folder` is, or would be made; none when unknown.
std::optional<qint64> freeBytesAt(const QString& folder);

} // namespace orvane
