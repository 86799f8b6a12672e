#include "ui/ConnectionTabs.h"

#include "app/AppModel.h"
#include "ui/SettingsControls.h"

#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTableWidget>
#include <QVBoxLayout>

#include <algorithm>

namespace orvane {

namespace {

// The two OSC versions an Eos console speaks over TCP, in the order the choice lists them.
struct EosVersion {
    OSCFraming framing;
    int port;
};
constexpr EosVersion kEosVersions[] = {{OSCFraming::slip, 3037},
                                       {OSCFraming::lengthPrefixed, 3032}};

void addStatusRows(QFormLayout* form, QLabel* status, QLabel* advice)
{
    form->addRow(status);
    form->addRow(advice);
}

} // namespace

// Eos

EosTab::EosTab(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    AppSettings& settings = model_.settings();
    auto* form = new QFormLayout(this);

    auto* enabled = new QCheckBox(tr("Follow an Eos console"), this);
    enabled->setObjectName(QStringLiteral("eosEnabled"));
    bindSetting(enabled, settings, &AppSettings::eosEnabled, &AppSettings::setEosEnabled,
                &AppSettings::eosEnabledChanged);
    form->addRow(enabled);

    auto* autoConnect = new QCheckBox(tr("Find the console and connect to it automatically"), this);
    autoConnect->setObjectName(QStringLiteral("eosAutoConnect"));
    bindSetting(autoConnect, settings, &AppSettings::eosAutoConnect,
                &AppSettings::setEosAutoConnect, &AppSettings::eosAutoConnectChanged);
    form->addRow(autoConnect);

    auto* host = new QLineEdit(this);
    host->setObjectName(QStringLiteral("eosHost"));
    host->setPlaceholderText(tr("The console's address"));
    bindSetting(host, settings, &AppSettings::eosHost, &AppSettings::setEosHost,
                &AppSettings::eosHostChanged);
    form->addRow(tr("Console:"), host);

    version_ = new QComboBox(this);
    version_->setObjectName(QStringLiteral("eosVersion"));
    version_->addItem(tr("OSC 1.1 (port 3037)"));
    version_->addItem(tr("OSC 1.0 (port 3032)"));
    form->addRow(tr("OSC version:"), version_);
    connect(version_, &QComboBox::activated, this, [this](int index) {
        const EosVersion& chosen = kEosVersions[index];
        model_.settings().setEosFraming(chosen.framing);
        model_.settings().setEosPort(chosen.port);
    });
    connect(&settings, &AppSettings::eosFramingChanged, this, &EosTab::refreshVersion);
    refreshVersion();

    auto* port = new PortField(this);
    port->setObjectName(QStringLiteral("eosPort"));
    bindSetting(port, settings, &AppSettings::eosPort, &AppSettings::setEosPort,
                &AppSettings::eosPortChanged);
    form->addRow(tr("Port:"), port);

    status_ = makeStatusLabel(QStringLiteral("eosStatus"), this);
    advice_ = makeStatusLabel(QStringLiteral("eosAdvice"), this);
    addStatusRows(form, status_, advice_);
    connect(&model_.eos(), &EosConnection::statusTextChanged, this, &EosTab::refreshStatus);
    refreshStatus();
}

void EosTab::refreshVersion()
{
    const OSCFraming framing = model_.settings().eosFraming();
    const auto* chosen = std::find_if(std::begin(kEosVersions), std::end(kEosVersions),
                                      [&](const EosVersion& v) { return v.framing == framing; });
    const QSignalBlocker block(version_);
    version_->setCurrentIndex(int(chosen - std::begin(kEosVersions)));
}

void EosTab::refreshStatus()
{
    showStatus(status_, model_.eos().statusText());
    showStatus(advice_, model_.eos().advice());
}

// QLab

QLabTab::QLabTab(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    AppSettings& settings = model_.settings();
    auto* form = new QFormLayout(this);

    auto* enabled = new QCheckBox(tr("Follow QLab"), this);
    enabled->setObjectName(QStringLiteral("qlabEnabled"));
    bindSetting(enabled, settings, &AppSettings::qlabEnabled, &AppSettings::setQlabEnabled,
                &AppSettings::qlabEnabledChanged);
    form->addRow(enabled);

    hosts_ = new QListWidget(this);
    hosts_->setObjectName(QStringLiteral("qlabHosts"));
    hosts_->setMaximumHeight(hosts_->fontMetrics().height() * 6);
    looking_ = new QLabel(tr("Looking for other Macs running QLab…"), this);
    looking_->setObjectName(QStringLiteral("qlabLooking"));
    looking_->setForegroundRole(QPalette::PlaceholderText);
    auto* found = new QVBoxLayout;
    found->addWidget(hosts_);
    found->addWidget(looking_);
    form->addRow(tr("On the network:"), found);
    connect(hosts_, &QListWidget::itemClicked, this, [this](QListWidgetItem* item) {
        const auto& services = model_.qlabBrowser().services();
        const QString name = item->text();
        const auto chosen = std::find_if(services.begin(), services.end(),
                                         [&](const DiscoveredQLab& s) { return s.name == name; });
        if (chosen != services.end())
            model_.chooseQLabHost(*chosen);
    });
    connect(&model_.qlabBrowser(), &QLabBrowser::servicesChanged, this, &QLabTab::refreshHosts);
    refreshHosts();

    auto* host = new QLineEdit(this);
    host->setObjectName(QStringLiteral("qlabHost"));
    host->setPlaceholderText(tr("This computer"));
    bindSetting(host, settings, &AppSettings::qlabHost, &AppSettings::setQlabHost,
                &AppSettings::qlabHostChanged);
    form->addRow(tr("Host:"), host);

    auto* port = new PortField(this);
    port->setObjectName(QStringLiteral("qlabPort"));
    bindSetting(port, settings, &AppSettings::qlabPort, &AppSettings::setQlabPort,
                &AppSettings::qlabPortChanged);
    form->addRow(tr("Port:"), port);

    auto* passcode = new QLineEdit(this);
    passcode->setObjectName(QStringLiteral("qlabPasscode"));
    passcode->setEchoMode(QLineEdit::Password);
    passcode->setPlaceholderText(tr("Only if the workspace has one"));
    bindSetting(passcode, settings, &AppSettings::qlabPasscode, &AppSettings::setQlabPasscode,
                &AppSettings::qlabPasscodeChanged);
    form->addRow(tr("Passcode:"), passcode);

    workspace_ = new QComboBox(this);
    workspace_->setObjectName(QStringLiteral("qlabWorkspace"));
    form->addRow(tr("Workspace:"), workspace_);
    connect(workspace_, &QComboBox::activated, this, [this](int index) {
        model_.settings().setQlabWorkspace(workspace_->itemData(index).toString());
    });
    connect(&settings, &AppSettings::qlabWorkspaceChanged, this, &QLabTab::refreshWorkspaces);
    connect(&model_.qlab(), &QLabClient::workspacesChanged, this, &QLabTab::refreshWorkspaces);
    refreshWorkspaces();

    status_ = makeStatusLabel(QStringLiteral("qlabStatus"), this);
    advice_ = makeStatusLabel(QStringLiteral("qlabAdvice"), this);
    addStatusRows(form, status_, advice_);
    connect(&model_.qlab(), &QLabClient::stateChanged, this, &QLabTab::refreshStatus);
    // The client takes a new configuration before this tab hears of the change.
    connect(&settings, &AppSettings::qlabEnabledChanged, this, &QLabTab::refreshStatus);
    refreshStatus();
}

void QLabTab::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    if (!model_.qlabBrowser().isBrowsing())
        model_.qlabBrowser().start();
}

void QLabTab::refreshHosts()
{
    hosts_->clear();
    for (const DiscoveredQLab& service : model_.qlabBrowser().services())
        hosts_->addItem(service.name);
    const bool isEmpty = hosts_->count() == 0;
    hosts_->setVisible(!isEmpty);
    looking_->setVisible(isEmpty);
}

void QLabTab::refreshWorkspaces()
{
    const QString chosen = model_.settings().qlabWorkspace();
    const QSignalBlocker block(workspace_);
    workspace_->clear();
    workspace_->addItem(tr("First Open Workspace"), QString());
    for (const QLabWorkspace& workspace : model_.qlab().workspaces())
        workspace_->addItem(workspace.name, workspace.id);
    int index = workspace_->findData(chosen);
    if (index < 0) {
        // Chosen while QLab was reachable: kept until QLab lists its workspaces again.
        workspace_->addItem(chosen, chosen);
        index = workspace_->count() - 1;
    }
    workspace_->setCurrentIndex(index);
}

void QLabTab::refreshStatus()
{
    showStatus(status_, model_.qlab().statusText());
    showStatus(advice_, model_.qlab().advice());
}

// OSC

OscTab::OscTab(AppModel& model, QWidget* parent)
    : QWidget(parent)
    , model_(model)
{
    AppSettings& settings = model_.settings();
    auto* column = new QVBoxLayout(this);
    auto* form = new QFormLayout;
    column->addLayout(form);

    auto* enabled =
        new QCheckBox(tr("Listen for OSC from QLab, TouchOSC, Companion and others"), this);
    enabled->setObjectName(QStringLiteral("oscEnabled"));
    bindSetting(enabled, settings, &AppSettings::oscEnabled, &AppSettings::setOscEnabled,
                &AppSettings::oscEnabledChanged);
    form->addRow(enabled);

    auto* port = new PortField(this);
    port->setObjectName(QStringLiteral("oscPort"));
    bindSetting(port, settings, &AppSettings::oscPort, &AppSettings::setOscPort,
                &AppSettings::oscPortChanged);
    form->addRow(tr("Port:"), port);

    state_ = makeStatusLabel(QStringLiteral("oscState"), this);
    form->addRow(state_);
    OSCListener& listener = model_.input().listener();
    const auto refreshState = [this, &listener] { showStatus(state_, listener.stateText()); };
    connect(&listener, &OSCListener::stateChanged, this, refreshState);
    refreshState();

    auto* explanation = new QLabel(
        tr("Messages sent to these addresses show on the overlay under their label. An address "
           "ending in * catches every address that begins with it."),
        this);
    explanation->setWordWrap(true);
    column->addSpacing(8);
    column->addWidget(explanation);

    watched_ = new QTableWidget(0, 2, this);
    watched_->setObjectName(QStringLiteral("watchedAddresses"));
    watched_->setHorizontalHeaderLabels({tr("Label"), tr("Address")});
    watched_->horizontalHeader()->setStretchLastSection(true);
    watched_->verticalHeader()->hide();
    watched_->setSelectionBehavior(QAbstractItemView::SelectRows);
    column->addWidget(watched_, 1);

    auto* add = new QPushButton(tr("Add"), this);
    add->setObjectName(QStringLiteral("addWatchedAddress"));
    auto* remove = new QPushButton(tr("Remove"), this);
    remove->setObjectName(QStringLiteral("removeWatchedAddress"));
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(add);
    buttons->addWidget(remove);
    buttons->addStretch(1);
    column->addLayout(buttons);

    connect(watched_, &QTableWidget::itemChanged, this, &OscTab::writeWatched);
    connect(add, &QPushButton::clicked, this, &OscTab::addWatched);
    connect(remove, &QPushButton::clicked, this, &OscTab::removeWatched);
    connect(&settings, &AppSettings::watchedAddressesChanged, this, &OscTab::refreshWatched);
    refreshWatched();
}

bool OscTab::isWatchableAddress(const QString& address)
{
    if (address.size() < 2 || !address.startsWith(u'/'))
        return false;
    const qsizetype star = address.indexOf(u'*');
    if (star >= 0 && star != address.size() - 1)
        return false;
    return std::none_of(address.begin(), address.end(), [](QChar c) {
        return c.isSpace() || c == u'#' || c == u',' || c == u'?' || c == u'[' || c == u']' ||
               c == u'{' || c == u'}';
    });
}

QList<WatchedAddress> OscTab::watchedInTable() const
{
    QList<WatchedAddress> watched;
    for (int row = 0; row < watched_->rowCount(); ++row) {
        const QTableWidgetItem* label = watched_->item(row, 0);
        const QTableWidgetItem* address = watched_->item(row, 1);
        if (!label || !address)
            continue;
        watched.append(
            {QUuid(label->data(Qt::UserRole).toString()), label->text(), address->text()});
    }
    return watched;
}

void OscTab::refreshWatched()
{
    const QList<WatchedAddress> watched = model_.settings().watchedAddresses();
    const QSignalBlocker block(watched_);
    if (watchedInTable() != watched) {
        watched_->setRowCount(int(watched.size()));
        for (int row = 0; row < watched.size(); ++row) {
            auto* label = new QTableWidgetItem(watched[row].label);
            label->setData(Qt::UserRole, watched[row].id.toString(QUuid::WithoutBraces));
            watched_->setItem(row, 0, label);
            watched_->setItem(row, 1, new QTableWidgetItem(watched[row].address));
        }
    }
    // Marked, never dropped: the operator sees what to correct.
    for (int row = 0; row < watched_->rowCount(); ++row) {
        QTableWidgetItem* address = watched_->item(row, 1);
        const bool isValid = isWatchableAddress(address->text());
        address->setForeground(isValid ? palette().text() : QBrush(QColor(0xc0, 0x20, 0x20)));
        address->setToolTip(isValid ? QString()
                                    : tr("This isn't an OSC address yet: it starts with “/” "
                                         "and has no spaces."));
    }
}

void OscTab::writeWatched()
{
    model_.settings().setWatchedAddresses(watchedInTable());
    refreshWatched(); // marks the edited row even when the list did not change
}

void OscTab::addWatched()
{
    QList<WatchedAddress> watched = model_.settings().watchedAddresses();
    watched.append({QUuid::createUuid(), tr("Field"), QStringLiteral("/")});
    model_.settings().setWatchedAddresses(watched);
    watched_->setCurrentCell(int(watched.size()) - 1, 1);
    watched_->editItem(watched_->currentItem());
}

void OscTab::removeWatched()
{
    QList<int> rows;
    for (const QModelIndex& index : watched_->selectionModel()->selectedRows())
        rows.append(index.row());
    if (rows.isEmpty() && watched_->currentRow() >= 0)
        rows.append(watched_->currentRow());
    std::sort(rows.begin(), rows.end(), std::greater<>());
    QList<WatchedAddress> watched = watchedInTable();
    for (int row : rows)
        watched.removeAt(row);
    model_.settings().setWatchedAddresses(watched);
}

} // namespace orvane
