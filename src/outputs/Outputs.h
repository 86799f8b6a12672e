#pragma once

#include "base/Clock.h"
#include "outputs/NDILibrary.h"
#include "outputs/WebViewer.h"

#include <QObject>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>

namespace orvane {

class FrameSink;
class NDIOutput;
struct Frame;

// The outputs coordinator: owns the NDI sender and the web viewer, starts, stops or restarts
// exactly what a new configuration changes, passes every composited frame to both, and
// publishes their state for the user interface. Main thread only, except send() and the
// sink, which the capture thread calls.
class Outputs : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isNDIAvailable READ isNDIAvailable NOTIFY isNDIAvailableChanged)
    Q_PROPERTY(bool isSendingNDI READ isSendingNDI NOTIFY isSendingNDIChanged)
    Q_PROPERTY(int ndiReceivers READ ndiReceivers NOTIFY ndiReceiversChanged)
    Q_PROPERTY(QString ndiStatusText READ ndiStatusText NOTIFY ndiStatusTextChanged)
    Q_PROPERTY(orvane::WebViewer::State webState READ webState NOTIFY webStateChanged)
    Q_PROPERTY(QString webStatusText READ webStatusText NOTIFY webStateChanged)
    Q_PROPERTY(int webViewers READ webViewers NOTIFY webViewersChanged)
    Q_PROPERTY(QStringList webAddresses READ webAddresses NOTIFY webAddressesChanged)

public:
    struct Configuration {
        bool ndiEnabled = false;
        QString ndiName;
        bool webEnabled = false;
        int webPort = 8090;
        friend bool operator==(const Configuration&, const Configuration&) = default;
    };

    // The two things the NDI output can have to tell the user.
    static inline const QString kNDINotInstalledText =
        QStringLiteral("NDI isn't installed on this computer.");
    static inline const QString kNDICouldNotStartText = QStringLiteral(
        "NDI is installed but couldn't start. Try turning it off and on, or restart Orvane.");
    // Where the NDI runtime comes from, for the link beside "NDI isn't installed…".
    static inline const QString kNDIToolsAddress = QStringLiteral("https://ndi.video/tools/");

    // How the status is polled and a renamed sender restarted.
    static constexpr double kStatusInterval = 1.0;
    static constexpr double kRenameDelay = 0.5;

    using NDILoader = std::function<NDILibrary::LoadResult()>;

    // `loader` finds the NDI runtime the first time NDI is wanted (by default the process's
    // one search); `clock` runs the status poll and the rename delay.
    explicit Outputs(Clock& clock = Clock::system(), NDILoader loader = &NDILibrary::loadOnce,
                     WebViewer::Timeouts webTimeouts = {}, QObject* parent = nullptr);
    ~Outputs() override;

    void apply(const Configuration& configuration);
    std::optional<Configuration> configuration() const { return configuration_; }

    // Offers one composited frame to the NDI sender and the web viewer. Any thread.
    void send(std::shared_ptr<const Frame> frame, double frameDuration);
    // A frame sink that calls send(), for CaptureEngine::addSink; it does nothing once the
    // Outputs is gone.
    std::shared_ptr<FrameSink> sink() const;

    bool isNDIAvailable() const { return isNDIAvailable_; }
    bool isSendingNDI() const { return isSendingNDI_; }
    int ndiReceivers() const { return ndiReceivers_; }
    // Empty, kNDINotInstalledText or kNDICouldNotStartText.
    QString ndiStatusText() const { return ndiStatusText_; }
    WebViewer::State webState() const { return webState_; }
    // The failure sentence while the web viewer failed, else empty.
    QString webStatusText() const { return webState_.message; }
    int webViewers() const { return webViewers_; }
    QStringList webAddresses() const { return webAddresses_; }

    // How often each output was started (a restart counts once).
    int webStartsForTesting() const { return webStarts_; }
    int ndiStartsForTesting() const { return ndiStarts_; }
    WebViewer& webViewerForTesting() { return *web_; }

Q_SIGNALS:
    void isNDIAvailableChanged(bool available);
    void isSendingNDIChanged(bool sending);
    void ndiReceiversChanged(int receivers);
    void ndiStatusTextChanged(const QString& text);
    void webStateChanged(const orvane::WebViewer::State& state);
    void webViewersChanged(int viewers);
    void webAddressesChanged(const QStringList& addresses);

private:
    class Sink;

    void startNDI(const QString& name);
    void refreshStatus();
    void setNDIAvailable(bool available);
    void setSendingNDI(bool sending);
    void setNDIReceivers(int receivers);
    void setNDIStatusText(const QString& text);
    void setWebState(const WebViewer::State& state);
    void setWebViewers(int viewers);
    void setWebAddresses(const QStringList& addresses);

    NDILoader loader_;
    std::unique_ptr<NDIOutput> ndi_;
    std::unique_ptr<WebViewer> web_;
    std::shared_ptr<Sink> sink_;
    std::shared_ptr<const NDILibrary> library_;

    bool isNDIAvailable_ = false;
    bool isSendingNDI_ = false;
    int ndiReceivers_ = 0;
    QString ndiStatusText_;
    WebViewer::State webState_;
    int webViewers_ = 0;
    QStringList webAddresses_;
    std::optional<QString> localHostName_;
    std::optional<Configuration> configuration_;

    Timer statusTask_;
    Timer ndiRestartTask_;
    int webStarts_ = 0;
    int ndiStarts_ = 0;
};

} // namespace orvane
