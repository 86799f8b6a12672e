#include "ui/SidebarSections.h"

#include "app/AppModel.h"
#include "ui/SettingBinding.h"

#include <QCheckBox>
#include <QLabel>
#include <QVBoxLayout>

namespace orvane {

namespace {

QString link(const QString& address)
{
    return QStringLiteral("<a href=\"%1\">%1</a>").arg(address.toHtmlEscaped());
}

// "1 viewer", "3 viewers".
QString count(int n, const QString& one, const QString& many)
{
    return n == 1 ? one : many.arg(n);
}

} // namespace

OutputsSection::OutputsSection(AppModel& model, QWidget* parent)
    : SidebarSection(tr("Outputs"), model.settings(), nullptr, parent)
    , model_(model)
{
    auto* web = new QCheckBox(tr("Web Viewer"), this);
    web->setToolTip(tr("Shares the picture with the overlay as a web page on the local network."));
    bindSwitch(web, model_.settings(), "webViewerEnabled");
    rows()->addWidget(web);
    webState_ = addLine(QStringLiteral("webState"));
    webViewers_ = addLine(QStringLiteral("webViewers"), true);
    webAddresses_ = addLine(QStringLiteral("webAddresses"));
    webAddresses_->setTextFormat(Qt::RichText);
    webAddresses_->setTextInteractionFlags(Qt::TextBrowserInteraction);
    webAddresses_->setOpenExternalLinks(true);

    auto* ndi = new QCheckBox(tr("NDI"), this);
    ndi->setToolTip(tr("Sends the picture with the overlay to anything on the network that "
                       "receives NDI: vision mixers, OBS, NDI Video Monitor."));
    bindSwitch(ndi, model_.settings(), "ndiEnabled");
    rows()->addWidget(ndi);
    ndiStatus_ = addLine(QStringLiteral("ndiStatus"));
    ndiStatus_->setTextFormat(Qt::RichText);
    ndiStatus_->setTextInteractionFlags(Qt::TextBrowserInteraction);
    ndiStatus_->setOpenExternalLinks(true);
    ndiReceivers_ = addLine(QStringLiteral("ndiReceivers"), true);

    Outputs& outputs = model_.outputs();
    connect(&outputs, &Outputs::webStateChanged, this, &OutputsSection::refresh);
    connect(&outputs, &Outputs::webViewersChanged, this, &OutputsSection::refresh);
    connect(&outputs, &Outputs::webAddressesChanged, this, &OutputsSection::refresh);
    connect(&outputs, &Outputs::isSendingNDIChanged, this, &OutputsSection::refresh);
    connect(&outputs, &Outputs::ndiReceiversChanged, this, &OutputsSection::refresh);
    connect(&outputs, &Outputs::ndiStatusTextChanged, this, &OutputsSection::refresh);
    connect(&model_.settings(), &AppSettings::ndiEnabledChanged, this, &OutputsSection::refresh);
    connect(&model_.settings(), &AppSettings::ndiNameChanged, this, &OutputsSection::refresh);
    connect(&model_.settings(), &AppSettings::webViewerEnabledChanged, this,
            &OutputsSection::refresh);
    refresh();
}

void OutputsSection::refresh()
{
    const Outputs& outputs = model_.outputs();
    const AppSettings& settings = model_.settings();

    StatusDot::Status web = StatusDot::Status::off;
    const WebViewer::State state = outputs.webState();
    switch (state.kind) {
    case WebViewer::State::Kind::listening:
        web = StatusDot::Status::working;
        showLine(webState_, tr("Sharing on port %1").arg(state.port));
        break;
    case WebViewer::State::Kind::failed:
        web = StatusDot::Status::needsUser;
        showLine(webState_, state.message);
        break;
    case WebViewer::State::Kind::off:
        if (settings.webViewerEnabled())
            web = StatusDot::Status::trying;
        showLine(webState_, settings.webViewerEnabled() ? tr("Starting…") : tr("Off"));
        break;
    }
    const bool listening = state.kind == WebViewer::State::Kind::listening;
    showLine(webViewers_, listening ? count(outputs.webViewers(), OutputsSection::tr("1 viewer"),
                                            OutputsSection::tr("%1 viewers"))
                                    : QString());
    QStringList links;
    for (const QString& address : outputs.webAddresses())
        links.append(link(address));
    showLine(webAddresses_, listening ? links.join(QStringLiteral("<br>")) : QString());

    StatusDot::Status ndi = StatusDot::Status::off;
    QString ndiText;
    if (!outputs.ndiStatusText().isEmpty()) {
        ndi = StatusDot::Status::needsUser;
        ndiText = outputs.ndiStatusText().toHtmlEscaped();
        if (outputs.ndiStatusText() == Outputs::kNDINotInstalledText)
            ndiText += QStringLiteral("<br>") + link(Outputs::kNDIToolsAddress);
    } else if (outputs.isSendingNDI()) {
        ndi = StatusDot::Status::working;
        const QString name =
            settings.ndiName().isEmpty() ? QStringLiteral("Orvane") : settings.ndiName();
        ndiText = tr("Sending as “%1”").arg(name).toHtmlEscaped();
    } else if (settings.ndiEnabled()) {
        ndi = StatusDot::Status::trying;
        ndiText = tr("Starting…");
    } else {
        ndiText = tr("Off");
    }
    showLine(ndiStatus_, ndiText);
    showLine(ndiReceivers_, outputs.isSendingNDI()
                                ? count(outputs.ndiReceivers(), OutputsSection::tr("1 receiver"),
                                        OutputsSection::tr("%1 receivers"))
                                : QString());
    setStatus(StatusDot::combined(web, ndi));
}

} // namespace orvane
