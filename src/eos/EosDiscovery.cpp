#include "eos/EosDiscovery.h"

#include "base/Checks.h"
#include "eos/EosProbe.h"
#include "osc/OSCMessageText.h"

#include <QHostAddress>
#include <QLoggingCategory>
#include <QThread>
#include <QThreadPool>

#include <bit>
#include <deque>
#include <utility>
#include <set>

namespace orvane {

Q_LOGGING_CATEGORY(lcEos, "orvane.eos")

namespace {

// Blocking broadcast exchanges run here: one thread per interface, never queued behind others.
QThreadPool& discoveryPool()
{
    static QThreadPool* pool = [] {
        auto* made = new QThreadPool;
        made->setMaxThreadCount(64);
        made->setExpiryTimeout(10'000);
        return made;
    }();
    return *pool;
}

QString dottedDecimal(std::uint32_t address)
{
    return QHostAddress(address).toString();
}

// Carries results from worker threads to the scan on the main thread. Workers hold it
// shared; the scan sets `deliver` and clears it when it goes, so late results are dropped.
// Deleted on the main thread, whichever holder lets go last.
class Relay final : public QObject {
public:
    using Results = std::vector<DiscoveredConsole>;
    static std::shared_ptr<Relay> make()
    {
        return std::shared_ptr<Relay>(new Relay, [](Relay* relay) { relay->deleteLater(); });
    }
    // Any thread: hands `results` of part `part` to the main thread. The queued call holds
    // the relay weakly (the scan holds it while results matter): a call still queued when
    // the application quits is destroyed inside Qt's event queue lock, and letting go of
    // the last holder there would wait on that lock for ever in deleteLater().
    static void post(const std::shared_ptr<Relay>& relay, int part, Results results)
    {
        QMetaObject::invokeMethod(
            relay.get(),
            [weak = std::weak_ptr<Relay>(relay), part, results = std::move(results)]() mutable {
                const std::shared_ptr<Relay> held = weak.lock();
                if (held && held->deliver)
                    held->deliver(part, std::move(results));
            },
            Qt::QueuedConnection);
    }
    std::function<void(int, Results)> deliver;
    std::atomic_bool cancelled = false;
};

// Probes a sweep's addresses on the probe thread, a bounded number at a time.
class Sweeper final : public QObject {
public:
    struct Job {
        ScanTarget target;
        std::uint32_t host;
    };

    Sweeper(std::vector<Job> jobs, int concurrency, std::shared_ptr<Relay> relay, int part)
        : jobs_(std::move(jobs)), results_(jobs_.size()), concurrency_(concurrency),
          relay_(std::move(relay)), part_(part)
    {
    }

    void run() { launchMore(); }

private:
    void launchMore()
    {
        while (running_ < concurrency_ && next_ < jobs_.size()) {
            const std::size_t index = next_++;
            auto* probe = new EosProbe(Clock::system(), this);
            ++running_;
            const Job& job = jobs_[index];
            probe->start(job.host, EosProbe::kPort, job.target,
                         [this, probe, index](std::optional<EosProbe::Result> result) {
                             probe->deleteLater();
                             --running_;
                             if (result) {
                                 const Job& done = jobs_[index];
                                 DiscoveredConsole console;
                                 console.host = dottedDecimal(done.host);
                                 console.interfaceName = done.target.name;
                                 console.network = done.target.network;
                                 console.showName = result->showName;
                                 console.version = result->version;
                                 results_[index] = console;
                             }
                             finishOrContinue();
                         });
        }
        finishOrContinue();
    }

    void finishOrContinue()
    {
        if (relay_->cancelled) {
            finish();
            return;
        }
        if (next_ < jobs_.size()) {
            if (running_ < concurrency_)
                QMetaObject::invokeMethod(this, [this] { launchMore(); }, Qt::QueuedConnection);
            return;
        }
        if (running_ == 0)
            finish();
    }

    void finish()
    {
        if (finished_)
            return;
        finished_ = true;
        std::vector<DiscoveredConsole> found;
        for (auto& result : results_) {
            if (result)
                found.push_back(std::move(*result));
        }
        Relay::post(relay_, part_, std::move(found));
        thread()->quit();
    }

    std::vector<Job> jobs_;
    std::vector<std::optional<DiscoveredConsole>> results_;
    std::size_t next_ = 0;
    int running_ = 0;
    int concurrency_;
    bool finished_ = false;
    std::shared_ptr<Relay> relay_;
    int part_;
};

} // namespace

// One running scan: the broadcast exchange on every interface and, for a sweep, the probes.
// Main thread; a child of the discovery, deleted when it publishes or is stopped.
class EosDiscovery::Scan final : public QObject {
public:
    Scan(EosDiscovery* owner, ScanKind kind, int probeConcurrency, Seconds discoveryDuration)
        : QObject(owner), owner_(owner), relay_(Relay::make())
    {
        relay_->deliver = [this](int part, Relay::Results results) {
            if (part < 0)
                probed_ = std::move(results);
            else
                discovered_[std::size_t(part)] = std::move(results);
            --pending_;
            finishIfDone();
        };
        const std::vector<ScanTarget> targets = currentInterfaces();
        discovered_.resize(targets.size());
        for (std::size_t index = 0; index < targets.size(); ++index)
            startDiscovery(index, targets[index], discoveryDuration);
        if (kind == ScanKind::sweep)
            startSweep(targets, probeConcurrency);
        // With no interface at all the scan still ends, on the next turn of the event loop.
        QMetaObject::invokeMethod(this, [this] { finishIfDone(); }, Qt::QueuedConnection);
    }

    ~Scan() override
    {
        relay_->deliver = nullptr;
        relay_->cancelled = true;
        if (probeThread_) {
            probeThread_->quit();
            probeThread_->wait();
        }
    }

private:
    void startDiscovery(std::size_t index, const ScanTarget& target, Seconds duration)
    {
        ++pending_;
        discoveryPool().start([relay = relay_, index, target, duration] {
            Relay::post(relay, int(index),
                        discover(target, duration, [&] { return bool(relay->cancelled); }));
        });
    }

    void startSweep(const std::vector<ScanTarget>& targets, int concurrency)
    {
        std::vector<Sweeper::Job> jobs;
        for (const ScanTarget& target : targets) {
            for (std::uint32_t host : sweepAddresses(target))
                jobs.push_back({target, host});
        }
        ++pending_;
        probeThread_ = std::make_unique<QThread>();
        probeThread_->setObjectName(QStringLiteral("Eos probes"));
        auto* sweeper = new Sweeper(std::move(jobs), concurrency, relay_, -1);
        sweeper->moveToThread(probeThread_.get());
        connect(probeThread_.get(), &QThread::started, sweeper, [sweeper] { sweeper->run(); });
        connect(probeThread_.get(), &QThread::finished, sweeper, &QObject::deleteLater);
        probeThread_->start();
    }

    void finishIfDone()
    {
        if (pending_ > 0 || finished_)
            return;
        finished_ = true;
        std::vector<DiscoveredConsole> discovered;
        for (auto& part : discovered_)
            discovered.insert(discovered.end(), part.begin(), part.end());
        owner_->finishScan(merge(discovered, probed_));
    }

    EosDiscovery* owner_;
    int pending_ = 0;
    bool finished_ = false;
    std::vector<std::vector<DiscoveredConsole>> discovered_;
    std::vector<DiscoveredConsole> probed_;
    std::shared_ptr<Relay> relay_;
    std::unique_ptr<QThread> probeThread_;
};

EosDiscovery::EosDiscovery(Clock& clock, QObject* parent) : QObject(parent), clock_(clock) {}

EosDiscovery::~EosDiscovery()
{
    delete scan_;
}

bool EosDiscovery::scan(ScanKind kind)
{
    assertOnOwnThread(this);
    if (scan_)
        return false;
    qCDebug(lcEos) << "scan started" << (kind == ScanKind::sweep ? "with a sweep" : "");
    scan_ = new Scan(this, kind, probeConcurrency_, discoveryDuration_);
    Q_EMIT isScanningChanged();
    return true;
}

void EosDiscovery::stop()
{
    assertOnOwnThread(this);
    if (!scan_)
        return;
    delete std::exchange(scan_, nullptr);
    Q_EMIT isScanningChanged();
}

void EosDiscovery::finishScan(const QList<DiscoveredConsole>& found)
{
    // The scan object is still on the stack: let it go after it returns.
    scan_->deleteLater();
    scan_ = nullptr;
    qCDebug(lcEos) << "scan finished with" << found.size() << "consoles";
    if (found != consoles_) {
        consoles_ = found;
        Q_EMIT consolesChanged();
    }
    const QDateTime now = toDateTime(clock_.wallNow());
    if (now != lastScan_) {
        lastScan_ = now;
        Q_EMIT lastScanChanged();
    }
    Q_EMIT isScanningChanged();
    if (onScanFinished_)
        onScanFinished_();
}

std::optional<DiscoveredConsole> EosDiscovery::consoleFromReply(const OSCMessage& message,
                                                                const QString& host,
                                                                const ScanTarget& target)
{
    // The machine hears its own broadcast; a request is never a console.
    if (message.address.rfind("/etc/discovery", 0) != 0 ||
        message.address == "/etc/discovery/request")
        return std::nullopt;
    DiscoveredConsole console;
    console.host = host;
    console.interfaceName = target.name;
    console.network = target.network;
    if (message.arguments.size() >= 2) {
        console.deviceName = oscArgumentText(message, 1);
        console.consoleID = oscArgumentText(message, 2);
        console.version = oscArgumentText(message, 3);
    }
    return console;
}

std::vector<std::uint32_t> EosDiscovery::sweepAddresses(const ScanTarget& target)
{
    std::vector<std::uint32_t> addresses;
    std::set<std::uint32_t> seen{target.address};
    const auto add = [&](std::uint32_t address) {
        if (seen.insert(address).second)
            addresses.push_back(address);
    };
    const int prefixLength = std::popcount(target.netmask);
    if (prefixLength <= 16) {
        const std::uint32_t base = (target.address & 0xFFFF0000u) | (100u << 8);
        for (std::uint32_t host = 1; host <= 254; ++host)
            add(base | host);
    }
    const std::uint32_t netmask = prefixLength < 22 ? 0xFFFFFC00u : target.netmask;
    const std::uint32_t network = target.address & netmask;
    const std::uint32_t broadcast = network | ~netmask;
    if (broadcast - network >= 3) { // at least two hosts between the two ends
        for (std::uint32_t host = network + 1; host <= broadcast - 1; ++host)
            add(host);
    }
    return addresses;
}

QList<DiscoveredConsole> EosDiscovery::merge(const std::vector<DiscoveredConsole>& discovered,
                                             const std::vector<DiscoveredConsole>& probed)
{
    QList<DiscoveredConsole> joined;
    std::vector<bool> used(probed.size(), false);
    for (DiscoveredConsole console : discovered) {
        for (std::size_t index = 0; index < probed.size(); ++index) {
            const DiscoveredConsole& probe = probed[index];
            if (used[index] || probe.id() != console.id())
                continue;
            used[index] = true;
            // The probe knows the show; the reply knows the console's own version best.
            console.showName = probe.showName;
            if (!console.version)
                console.version = probe.version;
            break;
        }
        joined.append(console);
    }
    for (std::size_t index = 0; index < probed.size(); ++index) {
        if (!used[index])
            joined.append(probed[index]);
    }
    return joined;
}

} // namespace orvane
