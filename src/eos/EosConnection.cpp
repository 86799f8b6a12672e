#include "eos/EosConnection.h"

#include "base/Checks.h"

#include <QLoggingCategory>

namespace orvane {

Q_DECLARE_LOGGING_CATEGORY(lcEos)

namespace {

const QString kSameNetworkAdvice = QStringLiteral(
    "Check that the console is on and connected to the same network as this computer.");

EosConnection::Description describeFailure(const OSCStream::Failure& failure)
{
    using Kind = OSCStream::Failure::Kind;
    switch (failure.kind) {
    case Kind::refused:
        return {QStringLiteral("Connection refused"),
                QStringLiteral("The console is there but isn't accepting OSC. Turn on Third "
                               "Party OSC in Setup › Device Settings › Network › Interface "
                               "Protocols, and check the port.")};
    case Kind::noAnswer:
        return {QStringLiteral("No answer"), kSameNetworkAdvice};
    case Kind::unreachable:
        return {QStringLiteral("Network unreachable"), kSameNetworkAdvice};
    case Kind::unknownHost:
        return {QStringLiteral("Address not found"),
                QStringLiteral("Check the console's address.")};
    case Kind::closedByPeer:
        return {QStringLiteral("Connection closed"), {}};
    case Kind::wentQuiet:
        return {QStringLiteral("Stopped responding"),
                QStringLiteral("The console stopped answering. Orvane will keep trying.")};
    case Kind::invalidPort:
        return {QStringLiteral("Invalid port"),
                QStringLiteral("Choose a port between 1 and 65535.")};
    case Kind::wrongProtocol:
        return {QStringLiteral("Wrong protocol"),
                QStringLiteral("The console is sending a different OSC format. Use OSC 1.1 with "
                               "port 3037, or OSC 1.0 with port 3032.")};
    case Kind::other:
        return {failure.text, {}};
    }
    return {failure.text, {}};
}

std::optional<NetworkKind> requiredInterface(const std::optional<NetworkKind>& network)
{
    if (network == NetworkKind::wired || network == NetworkKind::wifi)
        return network;
    return std::nullopt;
}

} // namespace

EosConnection::EosConnection(Clock& clock, QObject* parent)
    : QObject(parent)
    , clock_(clock)
    , discovery_(clock)
    , stream_(clock)
    , searchTask_(clock)
{
    // The stream and the discovery are members: their callbacks cannot outlive this object.
    stream_.setKeepAlive(OSCMessage{"/eos/ping", {}});
    stream_.setKeepAliveInterval(kKeepAliveInterval);
    stream_.setSilenceTimeout(kSilenceTimeout);
    stream_.setOnReady([this] {
        if (stream_.status().kind == OSCStream::Status::Kind::ready)
            stream_.send(OSCMessage{"/eos/reset", {}});
    });
    stream_.setOnStatusChange([this](const OSCStream::Status& status) {
        if (status == streamStatus_)
            return;
        streamStatus_ = status;
        Q_EMIT streamStatusChanged();
        updateDescription();
    });
    stream_.setOnPacket([this](const QByteArray& packet) {
        const auto target = stream_.target();
        if (target && onPacket_)
            onPacket_(packet, target->host);
    });
    discovery_.setOnScanFinished([this] { scanFinished(); });
    connect(&discovery_, &EosDiscovery::isScanningChanged, this, [this] { updateDescription(); });
    updateDescription();
}

EosConnection::~EosConnection() = default;

void EosConnection::apply(const Configuration& configuration)
{
    assertOnOwnThread(this);
    if (configuration_ != configuration) {
        configuration_ = configuration;
        Q_EMIT configurationChanged();
    }
    if (!configuration.enabled) {
        // A pairing asked for before the link went off must not adopt anything later.
        pairOnNextScan_ = false;
        sweepAfterScan_ = false;
        stream_.disconnect();
        searchTask_.stop();
        discovery_.stop();
        updateDescription();
        return;
    }
    const QString host = configuration.host.trimmed();
    if (host.isEmpty()) {
        stream_.disconnect();
    } else {
        stream_.connectTo(OSCStream::Target{host, configuration.port, configuration.framing,
                                            requiredInterface(configuration.network)});
    }
    if (!configuration.autoConnect)
        searchTask_.stop();
    else if (!searchTask_.isActive())
        searchTask_.startRepeating(kSearchTick, [this] { searchTick(); });
    updateDescription();
}

void EosConnection::searchNow()
{
    assertOnOwnThread(this);
    if (!configuration_ || !configuration_->enabled) {
        Configuration on = configuration_.value_or(Configuration{});
        on.enabled = true;
        apply(on);
        Q_EMIT turnedOn();
    }
    stream_.retryNow();
    pairOnNextScan_ = true;
    if (!startScan(EosDiscovery::ScanKind::sweep))
        sweepAfterScan_ = true;
}

void EosConnection::forget(const DiscoveredConsole& console)
{
    assertOnOwnThread(this);
    forgotten_ = Forgotten{console.consoleID, console.host};
    if (!configuration_)
        return;
    const bool isConfigured =
        (console.consoleID && configuration_->consoleID == console.consoleID) ||
        configuration_->host.trimmed() == console.host;
    if (!isConfigured)
        return;
    Configuration next = *configuration_;
    next.consoleID.reset();
    next.consoleName.reset();
    next.host.clear();
    apply(next);
    Q_EMIT consoleForgotten();
}

bool EosConnection::startScan(EosDiscovery::ScanKind kind)
{
    if (!discovery_.scan(kind))
        return false;
    if (kind == EosDiscovery::ScanKind::sweep)
        lastSweep_ = clock_.now();
    return true;
}

void EosConnection::searchTick()
{
    // A link that answers is never moved by a scan, so there is nothing to look for.
    if (isConnected() || discovery_.isScanning())
        return;
    const bool sweepDue =
        !lastSweep_ || secondsBetween(*lastSweep_, clock_.now()) >= kSweepSpacing.count();
    startScan(sweepDue ? EosDiscovery::ScanKind::sweep : EosDiscovery::ScanKind::discovery);
}

bool EosConnection::isForgotten(const DiscoveredConsole& console) const
{
    if (!forgotten_)
        return false;
    if (forgotten_->consoleID && console.consoleID == forgotten_->consoleID)
        return true;
    return console.host == forgotten_->host;
}

void EosConnection::scanFinished()
{
    updateDescription();
    if (sweepAfterScan_) {
        sweepAfterScan_ = false;
        startScan(EosDiscovery::ScanKind::sweep);
        return;
    }
    const bool pairing = std::exchange(pairOnNextScan_, false);
    if (!configuration_ || !configuration_->enabled || !(configuration_->autoConnect || pairing))
        return;
    if (isConnected())
        return;

    QList<DiscoveredConsole> candidates;
    for (const DiscoveredConsole& console : discovery_.consoles()) {
        if (pairing || !isForgotten(console))
            candidates.append(console);
    }
    const auto pick = [&](auto matches) -> const DiscoveredConsole* {
        for (const DiscoveredConsole& console : candidates) {
            if (matches(console))
                return &console;
        }
        return nullptr;
    };
    const std::optional<QString> storedID = configuration_->consoleID;
    const QString configuredHost = configuration_->host.trimmed();
    const std::optional<QString> storedName = configuration_->consoleName;
    const DiscoveredConsole* picked = nullptr;
    if (storedID)
        picked = pick([&](const DiscoveredConsole& c) { return c.consoleID == storedID; });
    if (!picked && !configuredHost.isEmpty())
        picked = pick([&](const DiscoveredConsole& c) { return c.host == configuredHost; });
    if (!picked && storedName && !storedName->isEmpty())
        picked = pick([&](const DiscoveredConsole& c) { return c.shownName() == *storedName; });

    if (!picked) {
        if (candidates.size() == 1)
            adopt(candidates.front());
        return;
    }
    const bool moved = picked->host != configuredHost;
    const bool networkKnown =
        picked->network == NetworkKind::wired || picked->network == NetworkKind::wifi;
    if (moved || (networkKnown && configuration_->network != picked->network))
        adopt(*picked);
}

void EosConnection::adopt(const DiscoveredConsole& console)
{
    assertOnOwnThread(this);
    qCInfo(lcEos) << "following console" << console.shownName() << "at" << console.host << "on"
                  << console.interfaceName;
    if (isForgotten(console))
        forgotten_.reset(); // asked for again
    const QString name = console.shownName();
    const Adoption adoption{console.host, requiredInterface(console.network), console.consoleID,
                            name.isEmpty() ? std::nullopt : std::optional<QString>(name)};
    // Host, network and identity change in one step, so the stream makes one connect, to the
    // console's own address.
    Configuration next = configuration_.value_or(Configuration{});
    next.enabled = true;
    next.host = adoption.host;
    next.network = adoption.network;
    next.consoleID = adoption.consoleID;
    next.consoleName = adoption.consoleName;
    apply(next);
    Q_EMIT consoleAdopted(adoption);
}

EosConnection::Description
EosConnection::describe(const std::optional<Configuration>& configuration,
                        const OSCStream::Status& status, bool isScanning,
                        std::optional<int> consolesFound)
{
    if (!configuration || !configuration->enabled)
        return {QStringLiteral("Off"), {}};
    if (configuration->host.trimmed().isEmpty()) {
        // A search under way, or about to start, says so; then what the last one found.
        if (isScanning || (configuration->autoConnect && !consolesFound))
            return {QStringLiteral("Searching…"), {}};
        if (consolesFound && *consolesFound > 0)
            return {QStringLiteral("%1 consoles found").arg(*consolesFound), {}};
        if (consolesFound)
            return {QStringLiteral("No console found"), {}};
        return {QStringLiteral("No console address"), {}};
    }
    switch (status.kind) {
    case OSCStream::Status::Kind::idle:
    case OSCStream::Status::Kind::connecting:
        return {QStringLiteral("Connecting…"), {}};
    case OSCStream::Status::Kind::ready:
        return {QStringLiteral("Connected"), {}};
    case OSCStream::Status::Kind::retrying:
        return describeFailure(status.failure);
    }
    return {};
}

void EosConnection::updateDescription()
{
    const std::optional<int> found = discovery_.lastScan().isValid()
                                         ? std::optional<int>(int(discovery_.consoles().size()))
                                         : std::nullopt;
    const Description next =
        describe(configuration_, streamStatus_, discovery_.isScanning(), found);
    if (next == description_)
        return;
    description_ = next;
    Q_EMIT statusTextChanged();
}

} // namespace orvane
