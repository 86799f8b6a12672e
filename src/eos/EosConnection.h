#pragma once

#include "base/Clock.h"
#include "eos/DiscoveredConsole.h"
#include "eos/EosDiscovery.h"
#include "osc/NetworkKind.h"
#include "osc/OSCFraming.h"
#include "osc/OSCMessage.h"
#include "osc/OSCStream.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

namespace orvane {

// The link to one Eos console: decides where its OSC stream goes (the typed address, or a
// console that discovery found and that is followed by its identity when its address
// changes), hands every message to its owner, and says in words how the link is doing.
// Takes its configuration as a plain value and reports what its owner must keep (a console
// adopted, a console forgotten, the link turned on) as signals. Main thread only.
class EosConnection : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isConnected READ isConnected NOTIFY streamStatusChanged)
    Q_PROPERTY(QString statusText READ statusText NOTIFY statusTextChanged)
    Q_PROPERTY(QString advice READ advice NOTIFY statusTextChanged)
public:
    struct Configuration {
        bool enabled = false;
        bool autoConnect = false;
        QString host;
        int port = 3037; // kept as set, so that a port out of range is reported, not corrected
        OSCFraming framing = OSCFraming::slip;
        std::optional<NetworkKind> network;
        // The console followed by its identity, and its shown name when it has one.
        std::optional<QString> consoleID;
        std::optional<QString> consoleName;
        friend bool operator==(const Configuration&, const Configuration&) = default;
    };
    // A console that the link adopted: all four are kept together, and the link turned on.
    struct Adoption {
        QString host;
        std::optional<NetworkKind> network; // wired or Wi-Fi; none for any interface
        std::optional<QString> consoleID;
        std::optional<QString> consoleName;
        friend bool operator==(const Adoption&, const Adoption&) = default;
    };
    // A console the user asked to drop: not adopted again by automatic scans.
    struct Forgotten {
        std::optional<QString> consoleID;
        QString host;
        friend bool operator==(const Forgotten&, const Forgotten&) = default;
    };
    // What the interface shows for the link: a short status and an advice sentence.
    struct Description {
        QString status;
        QString advice; // empty when there is none
        friend bool operator==(const Description&, const Description&) = default;
    };

    static constexpr Seconds kSearchTick{1.0};
    static constexpr Seconds kSweepSpacing{120.0};
    static constexpr Seconds kKeepAliveInterval{5.0};
    static constexpr Seconds kSilenceTimeout{20.0};

    explicit EosConnection(Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~EosConnection() override;

    // Stores `configuration` and brings the stream and the search in line with it. Turning
    // the link off also drops a pairing that "search now" had asked for.
    void apply(const Configuration& configuration);
    // The interface's "search now": turns the link on (`turnedOn`), retries at once, and
    // sweeps; the console it finds may be adopted even with automatic connection off.
    void searchNow();
    // Drops `console`: automatic scans no longer adopt it, and when it is the configured
    // console the link lets go of it (`consoleForgotten`).
    void forget(const DiscoveredConsole& console);
    // The user chose `console` from the list of consoles found: the link follows it, as when
    // a scan adopts one (`consoleAdopted`), and a console forgotten before is wanted again.
    void adopt(const DiscoveredConsole& console);
    std::optional<Forgotten> forgotten() const { return forgotten_; }

    // Receives every packet that the console sends, undecoded, with the host it came from.
    void setOnPacket(std::function<void(const QByteArray&, const QString&)> callback)
    {
        onPacket_ = std::move(callback);
    }

    std::optional<Configuration> configuration() const { return configuration_; }
    OSCStream::Status streamStatus() const { return streamStatus_; }
    bool isConnected() const { return streamStatus_.kind == OSCStream::Status::Kind::ready; }
    bool isSearching() const { return searchTask_.isActive(); }
    QString statusText() const { return description_.status; }
    QString advice() const { return description_.advice; }

    EosDiscovery& discovery() { return discovery_; }
    OSCStream& stream() { return stream_; }

    // The status and advice for a link in this state. `consolesFound` is the count of the
    // last finished scan, none before the first.
    static Description describe(const std::optional<Configuration>& configuration,
                                const OSCStream::Status& status, bool isScanning,
                                std::optional<int> consolesFound);

Q_SIGNALS:
    void configurationChanged();
    // The owner keeps these in its settings. The link has already applied them, all at once;
    // an owner that writes them one by one applies the configuration again only at the end.
    void consoleAdopted(const orvane::EosConnection::Adoption& adoption);
    void consoleForgotten(); // the configured console's address, identity and name are gone
    void turnedOn();
    void streamStatusChanged();
    void statusTextChanged();

private:
    void searchTick();
    void scanFinished();
    bool startScan(EosDiscovery::ScanKind kind);
    bool isForgotten(const DiscoveredConsole& console) const;
    void updateDescription();

    Clock& clock_;
    EosDiscovery discovery_;
    OSCStream stream_;
    std::function<void(const QByteArray&, const QString&)> onPacket_;
    std::optional<Configuration> configuration_;
    OSCStream::Status streamStatus_;
    Timer searchTask_;
    std::optional<Instant> lastSweep_;
    bool pairOnNextScan_ = false;
    bool sweepAfterScan_ = false;
    std::optional<Forgotten> forgotten_;
    Description description_;
};

} // namespace orvane
