#include "outputs/Outputs.h"

#include "base/Checks.h"
#include "capture/FrameSink.h"
#include "outputs/LocalNetwork.h"
#include "outputs/NDIOutput.h"

#include <mutex>

namespace orvane {

// Hands the capture thread's frames to the Outputs while it lives. The lock is held for one
// send(), which only decides and hands over; the destructor waits for a send in progress.
class Outputs::Sink final : public FrameSink {
public:
    explicit Sink(Outputs* outputs)
        : outputs_(outputs)
    {
    }
    void takeFrame(std::shared_ptr<const Frame> frame, double frameDuration) override
    {
        std::lock_guard lock(mutex_);
        if (outputs_)
            outputs_->send(std::move(frame), frameDuration);
    }
    void detach()
    {
        std::lock_guard lock(mutex_);
        outputs_ = nullptr;
    }

private:
    std::mutex mutex_;
    Outputs* outputs_;
};

Outputs::Outputs(Clock& clock, NDILoader loader, WebViewer::Timeouts webTimeouts, QObject* parent)
    : QObject(parent)
    , loader_(std::move(loader))
    , ndi_(std::make_unique<NDIOutput>())
    , web_(std::make_unique<WebViewer>(webTimeouts, clock))
    , sink_(std::make_shared<Sink>(this))
    , localHostName_(localHostName())
    , statusTask_(clock)
    , ndiRestartTask_(clock)
{
    // The web viewer and the NDI sender report from their own threads; these are queued here.
    connect(web_.get(), &WebViewer::stateChanged, this, [this] { setWebState(web_->state()); });
    connect(web_.get(), &WebViewer::viewersChanged, this,
            [this] { setWebViewers(web_->viewers()); });
    connect(ndi_.get(), &NDIOutput::startFinished, this, [this](bool running) {
        // A start that finishes after NDI was turned off again tells nothing.
        if (!configuration_ || !configuration_->ndiEnabled)
            return;
        setSendingNDI(running);
        setNDIStatusText(running ? QString() : kNDICouldNotStartText);
    });
    connect(ndi_.get(), &NDIOutput::receiversChanged, this,
            [this] { setNDIReceivers(ndi_->isRunning() ? ndi_->receivers() : 0); });
    statusTask_.startRepeating(Seconds(kStatusInterval), [this] { refreshStatus(); });
}

Outputs::~Outputs()
{
    sink_->detach();
    statusTask_.stop();
    ndiRestartTask_.stop();
    disconnect(web_.get(), nullptr, this, nullptr);
    disconnect(ndi_.get(), nullptr, this, nullptr);
    web_.reset();
    ndi_.reset();
}

std::shared_ptr<FrameSink> Outputs::sink() const
{
    return sink_;
}

void Outputs::apply(const Configuration& next)
{
    assertOnOwnThread(this);
    const std::optional<Configuration> previous = configuration_;
    configuration_ = next;

    const bool webWasOn = previous && previous->webEnabled;
    if (next.webEnabled && (!webWasOn || previous->webPort != next.webPort)) {
        ++webStarts_;
        web_->start(next.webPort);
    } else if (!next.webEnabled && webWasOn) {
        web_->stop();
    }

    const bool ndiWasOn = previous && previous->ndiEnabled;
    if (next.ndiEnabled && !ndiWasOn) {
        startNDI(next.ndiName);
    } else if (!next.ndiEnabled && ndiWasOn) {
        ndiRestartTask_.stop();
        ndi_->stop();
        setSendingNDI(false);
        setNDIReceivers(0);
    } else if (next.ndiEnabled && previous->ndiName != next.ndiName) {
        // Typing a new name restarts the sender once, after the last key.
        ndiRestartTask_.start(Seconds(kRenameDelay), [this] {
            if (configuration_ && configuration_->ndiEnabled)
                startNDI(configuration_->ndiName);
        });
    }
}

void Outputs::startNDI(const QString& name)
{
    ndiRestartTask_.stop();
    if (!library_) {
        const NDILibrary::LoadResult loaded = loader_();
        library_ = loaded.library;
        setNDIAvailable(library_ != nullptr);
        if (!library_) {
            setNDIStatusText(loaded.foundRuntime ? kNDICouldNotStartText : kNDINotInstalledText);
            return;
        }
    }
    ++ndiStarts_;
    ndi_->start(library_, name); // replaces a running sender
}

void Outputs::send(std::shared_ptr<const Frame> frame, double frameDuration)
{
    if (ndi_->isRunning())
        ndi_->send(frame, frameDuration);
    web_->send(std::move(frame));
}

void Outputs::refreshStatus()
{
    if (ndi_->isRunning())
        ndi_->pollReceivers();
    setWebState(web_->state());
    setWebViewers(web_->viewers());
}

void Outputs::setNDIAvailable(bool available)
{
    if (isNDIAvailable_ == available)
        return;
    isNDIAvailable_ = available;
    Q_EMIT isNDIAvailableChanged(available);
}

void Outputs::setSendingNDI(bool sending)
{
    if (isSendingNDI_ == sending)
        return;
    isSendingNDI_ = sending;
    Q_EMIT isSendingNDIChanged(sending);
}

void Outputs::setNDIReceivers(int receivers)
{
    if (ndiReceivers_ == receivers)
        return;
    ndiReceivers_ = receivers;
    Q_EMIT ndiReceiversChanged(receivers);
}

void Outputs::setNDIStatusText(const QString& text)
{
    if (ndiStatusText_ == text)
        return;
    ndiStatusText_ = text;
    Q_EMIT ndiStatusTextChanged(text);
}

void Outputs::setWebState(const WebViewer::State& state)
{
    if (webState_ != state) {
        webState_ = state;
        Q_EMIT webStateChanged(state);
    }
    // The addresses exist only while listening; interfaces may come and go meanwhile.
    setWebAddresses(state.kind == WebViewer::State::Kind::listening
                        ? webAddressesFor(interfaceAddresses(), localHostName_, state.port)
                        : QStringList());
}

void Outputs::setWebViewers(int viewers)
{
    if (webViewers_ == viewers)
        return;
    webViewers_ = viewers;
    Q_EMIT webViewersChanged(viewers);
}

void Outputs::setWebAddresses(const QStringList& addresses)
{
    if (webAddresses_ == addresses)
        return;
    webAddresses_ = addresses;
    Q_EMIT webAddressesChanged(addresses);
}

} // namespace orvane
