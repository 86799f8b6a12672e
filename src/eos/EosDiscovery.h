#pragma once

#include "base/Clock.h"
#include "eos/DiscoveredConsole.h"
#include "eos/ScanTarget.h"
#include "osc/OSCMessage.h"

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QPointer>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace orvane {

// Finds Eos consoles on every local IPv4 network of the machine: a discovery broadcast on each
// interface, and on request a sweep that probes each subnet over TCP for consoles that do not
// answer the broadcast. Main thread only; the socket work runs on worker threads.
class EosDiscovery : public QObject {
    Q_OBJECT
    Q_PROPERTY(QList<orvane::DiscoveredConsole> consoles READ consoles NOTIFY consolesChanged)
    Q_PROPERTY(bool isScanning READ isScanning NOTIFY isScanningChanged)
    Q_PROPERTY(QDateTime lastScan READ lastScan NOTIFY lastScanChanged)
public:
    enum class ScanKind { discovery, sweep };

    static constexpr std::uint16_t kDiscoveryPort = 3034;
    static constexpr Seconds kDiscoveryDuration{1.5};
    // Probes that run at once during a sweep.
    static constexpr int kDefaultProbeConcurrency = 128;

    explicit EosDiscovery(Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~EosDiscovery() override;

    // The consoles of the last finished scan.
    const QList<DiscoveredConsole>& consoles() const { return consoles_; }
    bool isScanning() const { return scan_ != nullptr; }
    // When the last scan finished (wall clock); null before the first.
    QDateTime lastScan() const { return lastScan_; }

    // Starts a scan; false when one is already running. The results replace consoles() and
    // then the scan-finished callback runs.
    bool scan(ScanKind kind);
    // Cancels the running scan without publishing anything.
    void stop();
    void setOnScanFinished(std::function<void()> call) { onScanFinished_ = std::move(call); }
    void setProbeConcurrency(int probes) { probeConcurrency_ = std::max(1, probes); }
    // How long each scan's broadcast exchange lasts; tests that only need the answers shorten it.
    void setDiscoveryDurationForTesting(Seconds duration) { discoveryDuration_ = duration; }

    // The interfaces that a scan covers now: up, IPv4, not loopback, not 169.254/16.
    static std::vector<ScanTarget> currentInterfaces();
    // The broadcast exchange on one interface: blocks the calling thread for `duration` (less
    // once `isCancelled` says so) and returns the consoles that answered, one per address.
    static std::vector<DiscoveredConsole> discover(const ScanTarget& target,
                                                   Seconds duration = kDiscoveryDuration,
                                                   const std::function<bool()>& isCancelled = {},
                                                   std::uint16_t port = kDiscoveryPort);
    // The console that one discovery reply names, or nothing when `message` is not a reply.
    static std::optional<DiscoveredConsole> consoleFromReply(const OSCMessage& message,
                                                             const QString& host,
                                                             const ScanTarget& target);
    // The addresses a sweep probes on `target`, in probing order (host order).
    static std::vector<std::uint32_t> sweepAddresses(const ScanTarget& target);
    // One list from a scan's parts: discovery replies first, each joined with a probe of the
    // same host and interface; then consoles that only a probe found.
    static QList<DiscoveredConsole> merge(const std::vector<DiscoveredConsole>& discovered,
                                          const std::vector<DiscoveredConsole>& probed);

Q_SIGNALS:
    void consolesChanged();
    void isScanningChanged();
    void lastScanChanged();

private:
    class Scan;
    void finishScan(const QList<DiscoveredConsole>& found);

    Clock& clock_;
    QList<DiscoveredConsole> consoles_;
    QDateTime lastScan_;
    std::function<void()> onScanFinished_;
    int probeConcurrency_ = kDefaultProbeConcurrency;
    Seconds discoveryDuration_ = kDiscoveryDuration;
    Scan* scan_ = nullptr; // a child while it runs
};

} // namespace orvane
