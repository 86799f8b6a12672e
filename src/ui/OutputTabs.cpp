#include "ui/OutputTabs.h"

#include "app/AppModel.h"
#include "ui/SettingsControls.h"

#include <QComboBox>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

#include <filesystem>
#include <system_error>

namespace orvane {

// Recording

RecordingTab::RecordingTab(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    AppSettings& settings = model_.settings();
    auto* form = new QFormLayout(this);

    codec_ = new QComboBox(this);
    codec_->setObjectName(QStringLiteral("codec"));
    for (RecordingCodec codec : allRecordingCodecs)
        codec_->addItem(label(codec), rawValue(codec));
    form->addRow(tr("Video format:"), codec_);
    const auto refreshCodec = [this] {
        const QSignalBlocker block(codec_);
        codec_->setCurrentIndex(codec_->findData(rawValue(model_.settings().codec())));
    };
    connect(&settings, &AppSettings::codecChanged, this, refreshCodec);
    connect(codec_, &QComboBox::activated, this, [this](int index) {
        model_.settings().setCodec(allRecordingCodecs.at(std::size_t(index)));
    });
    refreshCodec();

    auto* cueLog = new QCheckBox(tr("Save a cue log with each recording"), this);
    cueLog->setObjectName(QStringLiteral("writesCueLog"));
    bindSetting(cueLog, settings, &AppSettings::writesCueLog, &AppSettings::setWritesCueLog,
                &AppSettings::writesCueLogChanged);
    form->addRow(QString(), cueLog);

    auto* folder = new QLabel(QDir::toNativeSeparators(model_.recordingsFolder()), this);
    folder->setObjectName(QStringLiteral("recordingsFolder"));
    folder->setTextInteractionFlags(Qt::TextSelectableByMouse);
    folder->setWordWrap(true);
    auto* open = new QPushButton(tr("Open"), this);
    open->setObjectName(QStringLiteral("openRecordingsFolder"));
    connect(open, &QPushButton::clicked, this, &RecordingTab::openFolder);
    auto* folderRow = new QHBoxLayout;
    folderRow->addWidget(folder, 1);
    folderRow->addWidget(open);
    form->addRow(tr("Recordings folder:"), folderRow);
}

void RecordingTab::openFolder()
{
    const QString folder = model_.recordingsFolder();
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(folder.toStdString()), error);
    if (error || !QFileInfo(folder).isDir()) {
        QString reason = error ? QString::fromStdString(error.message()) : tr("Not a folder");
        if (!reason.endsWith(u'.'))
            reason += u'.';
        model_.setErrorMessage(
            QStringLiteral("Orvane couldn't create the recordings folder in Videos. ") + reason);
        return;
    }
    QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
}

// Outputs

OutputsTab::OutputsTab(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    AppSettings& settings = model_.settings();
    Outputs& outputs = model_.outputs();

    auto* webBox = new QGroupBox(tr("Web viewer"), this);
    auto* webForm = new QFormLayout(webBox);
    auto* webEnabled = new QCheckBox(tr("Show the picture in a web browser"), webBox);
    webEnabled->setObjectName(QStringLiteral("webViewerEnabled"));
    bindSetting(webEnabled, settings, &AppSettings::webViewerEnabled,
                &AppSettings::setWebViewerEnabled, &AppSettings::webViewerEnabledChanged);
    webForm->addRow(webEnabled);
    auto* webPort = new PortField(webBox);
    webPort->setObjectName(QStringLiteral("webViewerPort"));
    bindSetting(webPort, settings, &AppSettings::webViewerPort, &AppSettings::setWebViewerPort,
                &AppSettings::webViewerPortChanged);
    webForm->addRow(tr("Port:"), webPort);
    webState_ = makeStatusLabel(QStringLiteral("webState"), webBox);
    webForm->addRow(webState_);
    webAddresses_ = new QLabel(webBox);
    webAddresses_->setObjectName(QStringLiteral("webAddresses"));
    webAddresses_->setTextFormat(Qt::RichText);
    webAddresses_->setOpenExternalLinks(true);
    webAddresses_->setWordWrap(true);
    webForm->addRow(webAddresses_);
    connect(&outputs, &Outputs::webStateChanged, this, &OutputsTab::refreshWeb);
    connect(&outputs, &Outputs::webAddressesChanged, this, &OutputsTab::refreshWeb);
    refreshWeb();

    auto* ndiBox = new QGroupBox(tr("NDI"), this);
    auto* ndiForm = new QFormLayout(ndiBox);
    auto* ndiEnabled = new QCheckBox(tr("Send an NDI source"), ndiBox);
    ndiEnabled->setObjectName(QStringLiteral("ndiEnabled"));
    bindSetting(ndiEnabled, settings, &AppSettings::ndiEnabled, &AppSettings::setNdiEnabled,
                &AppSettings::ndiEnabledChanged);
    ndiForm->addRow(ndiEnabled);
    auto* description = new QLabel(tr("Sends the picture with the overlay to anything on the "
                                      "network that receives NDI: vision mixers, OBS, NDI "
                                      "Video Monitor."),
                                   ndiBox);
    description->setObjectName(QStringLiteral("ndiDescription"));
    description->setWordWrap(true);
    description->setForegroundRole(QPalette::PlaceholderText);
    ndiForm->addRow(description);
    auto* ndiName = new QLineEdit(ndiBox);
    ndiName->setObjectName(QStringLiteral("ndiName"));
    ndiName->setPlaceholderText(QStringLiteral("Orvane"));
    bindSetting(ndiName, settings, &AppSettings::ndiName, &AppSettings::setNdiName,
                &AppSettings::ndiNameChanged);
    ndiForm->addRow(tr("Source name:"), ndiName);
    ndiStatus_ = makeStatusLabel(QStringLiteral("ndiStatus"), ndiBox);
    ndiStatus_->setTextFormat(Qt::RichText);
    ndiStatus_->setOpenExternalLinks(true);
    ndiStatus_->setTextInteractionFlags(Qt::TextBrowserInteraction);
    ndiForm->addRow(ndiStatus_);
    connect(&outputs, &Outputs::ndiStatusTextChanged, this, &OutputsTab::refreshNDI);
    refreshNDI();

    auto* column = new QVBoxLayout(this);
    column->addWidget(webBox);
    column->addWidget(ndiBox);
    column->addStretch(1);
}

void OutputsTab::refreshWeb()
{
    const Outputs& outputs = model_.outputs();
    const WebViewer::State state = outputs.webState();
    QString text;
    switch (state.kind) {
    case WebViewer::State::Kind::off:
        break;
    case WebViewer::State::Kind::listening:
        text = tr("Open one of these addresses in a browser on the same network:");
        break;
    case WebViewer::State::Kind::failed:
        text = state.message;
        break;
    }
    showStatus(webState_, text);

    QStringList links;
    if (state.kind == WebViewer::State::Kind::listening) {
        for (const QString& address : outputs.webAddresses())
            links.append(QStringLiteral("<a href=\"%1\">%1</a>").arg(address.toHtmlEscaped()));
    }
    webAddresses_->setText(links.join(QStringLiteral("<br>")));
    webAddresses_->setVisible(!links.isEmpty());
}

void OutputsTab::refreshNDI()
{
    const QString status = model_.outputs().ndiStatusText();
    QString text = status.toHtmlEscaped();
    if (status == Outputs::kNDINotInstalledText)
        text += QStringLiteral(" <a href=\"%1\">%2</a>")
                    .arg(Outputs::kNDIToolsAddress, tr("Get NDI Tools"));
    showStatus(ndiStatus_, status.isEmpty() ? QString() : text);
}

} // namespace orvane
