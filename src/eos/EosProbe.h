#pragma once

#include "base/Clock.h"
#include "eos/ScanTarget.h"
#include "osc/OSCMessage.h"
#include "osc/OSCStreamDecoder.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

class QSocketNotifier;

namespace orvane {

// One TCP probe of one address: asks it, as an Eos console would be asked, for its version and
// show, and says whether it answered as a console. Lives on the thread that made it, whose
// event loop drives it (the probe thread during a sweep).
class EosProbe : public QObject {
    Q_OBJECT
public:
    struct Result {
        std::optional<QString> showName;
        std::optional<QString> version;
        friend bool operator==(const Result&, const Result&) = default;
    };
    // Called once with the result, or with nothing when the host is not an Eos console.
    using Done = std::function<void(std::optional<Result>)>;

    static constexpr Seconds kTimeout{2.0};
    static constexpr std::uint16_t kPort = 3037;

    explicit EosProbe(Clock& clock, QObject* parent = nullptr);
    ~EosProbe() override;

    // Starts probing `host` (host order) on `port` through `via`'s interface. `done` is
    // called exactly once, never from inside start(); it may deleteLater() the probe.
    void start(std::uint32_t host, std::uint16_t port, const ScanTarget& via, Done done);
    bool isFinished() const { return !done_; }

private:
    void onConnected();
    void onReadable();
    void handle(const OSCMessage& message);
    void finish();
    void closeSocket();

    Timer timeout_;
    int fd_ = -1;
    QSocketNotifier* writable_ = nullptr; // children, deleted later when spent
    QSocketNotifier* readable_ = nullptr;
    OSCStreamDecoder decoder_{OSCFraming::slip};
    Result console_;
    bool isEos_ = false;
    bool hasShowName_ = false;
    Done done_;
};

} // namespace orvane
