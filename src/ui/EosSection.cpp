#include "ui/SidebarSections.h"

#include "app/AppModel.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

namespace orvane {

namespace {

StatusDot::Status statusOf(const EosConnection& eos)
{
    const auto configuration = eos.configuration();
    if (!configuration || !configuration->enabled)
        return StatusDot::Status::off;
    if (eos.isConnected())
        return StatusDot::Status::working;
    if (configuration->host.trimmed().isEmpty())
        return eos.isSearching() || configuration->autoConnect ? StatusDot::Status::trying
                                                               : StatusDot::Status::needsUser;
    const OSCStream::Status& stream = eos.streamStatus();
    switch (stream.kind) {
    case OSCStream::Status::Kind::idle:
    case OSCStream::Status::Kind::connecting:
    case OSCStream::Status::Kind::ready:
        return StatusDot::Status::trying;
    case OSCStream::Status::Kind::retrying:
        break;
    }
    // A console that went quiet or hung up is tried again on its own; the rest needs the user.
    switch (stream.failure.kind) {
    case OSCStream::Failure::Kind::closedByPeer:
    case OSCStream::Failure::Kind::wentQuiet:
        return StatusDot::Status::trying;
    case OSCStream::Failure::Kind::refused:
    case OSCStream::Failure::Kind::noAnswer:
    case OSCStream::Failure::Kind::unreachable:
    case OSCStream::Failure::Kind::unknownHost:
    case OSCStream::Failure::Kind::invalidPort:
    case OSCStream::Failure::Kind::wrongProtocol:
    case OSCStream::Failure::Kind::other:
        break;
    }
    return StatusDot::Status::needsUser;
}

bool isSameConsole(const DiscoveredConsole& console, const EosConnection::Configuration& followed)
{
    if (followed.consoleID && console.consoleID)
        return *followed.consoleID == *console.consoleID;
    return console.host == followed.host.trimmed();
}

} // namespace

EosSection::EosSection(AppModel& model, QWidget* parent)
    : SidebarSection(tr("Eos"), model.settings(), "eosEnabled", parent)
    , model_(model)
{
    status_ = addLine(QStringLiteral("eosStatus"));
    advice_ = addLine(QStringLiteral("eosAdvice"), true);
    console_ = addLine(QStringLiteral("eosConsole"));

    consoles_ = new QListWidget(this);
    consoles_->setObjectName(QStringLiteral("eosConsoles"));
    consoles_->setToolTip(
        tr("Consoles found on this computer's networks. Choose one to follow it."));
    consoles_->setMaximumHeight(110);
    consoles_->setWordWrap(true);
    consoles_->setSpacing(3);
    rows()->addWidget(consoles_);

    auto* search = new QPushButton(tr("Search Again"), this);
    search->setObjectName(QStringLiteral("eosSearchNow"));
    forget_ = new QPushButton(tr("Forget"), this);
    forget_->setObjectName(QStringLiteral("eosForget"));
    forget_->setToolTip(tr("Stop following this console"));
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(search);
    buttons->addWidget(forget_);
    buttons->addStretch(1);
    rows()->addLayout(buttons);

    EosConnection& eos = model_.eos();
    connect(search, &QPushButton::clicked, this, [this] { model_.eos().searchNow(); });
    connect(forget_, &QPushButton::clicked, this, &EosSection::forgetFollowed);
    connect(consoles_, &QListWidget::itemClicked, this, [this](QListWidgetItem* item) {
        const auto& found = model_.eos().discovery().consoles();
        const int at = item->data(Qt::UserRole).toInt();
        if (at < 0 || at >= found.size())
            return;
        // Following the console rebuilds the list, so not while the list is still clicked.
        QMetaObject::invokeMethod(
            this, [this, console = found.at(at)] { model_.eos().adopt(console); },
            Qt::QueuedConnection);
    });
    for (auto changed : {&EosConnection::statusTextChanged, &EosConnection::streamStatusChanged,
                         &EosConnection::configurationChanged})
        connect(&eos, changed, this, &EosSection::refresh);
    connect(&eos.discovery(), &EosDiscovery::isScanningChanged, this, &EosSection::refresh);
    connect(&eos, &EosConnection::configurationChanged, this, &EosSection::refreshConsoles);
    connect(&eos.discovery(), &EosDiscovery::consolesChanged, this, &EosSection::refreshConsoles);
    refresh();
    refreshConsoles();
}

std::optional<DiscoveredConsole> EosSection::followed() const
{
    const auto configuration = model_.eos().configuration();
    if (!configuration || (configuration->host.trimmed().isEmpty() && !configuration->consoleID))
        return std::nullopt;
    for (const DiscoveredConsole& console : model_.eos().discovery().consoles())
        if (isSameConsole(console, *configuration))
            return console;
    DiscoveredConsole console;
    console.host = configuration->host.trimmed();
    console.consoleID = configuration->consoleID;
    console.deviceName = configuration->consoleName;
    console.network = configuration->network.value_or(NetworkKind::other);
    return console;
}

void EosSection::forgetFollowed()
{
    if (const auto console = followed())
        model_.eos().forget(*console);
}

void EosSection::refresh()
{
    const EosConnection& eos = model_.eos();
    setStatus(statusOf(eos));
    showLine(status_, eos.statusText());
    showLine(advice_, eos.advice());

    const auto console = followed();
    const auto configuration = eos.configuration();
    QString following;
    if (console) {
        const QString name = console->shownName();
        following = name.isEmpty() ? tr("Following %1").arg(console->host)
                                   : tr("Following %1 (%2)").arg(name, console->host);
        if (configuration && configuration->network)
            following += QStringLiteral(" · ") + shownName(*configuration->network);
    }
    showLine(console_, following);
    forget_->setEnabled(console.has_value());
}

void EosSection::refreshConsoles()
{
    const auto& found = model_.eos().discovery().consoles();
    const auto configuration = model_.eos().configuration();
    consoles_->clear();
    for (qsizetype at = 0; at < found.size(); ++at) {
        const DiscoveredConsole& console = found.at(at);
        const QString name =
            console.shownName().isEmpty() ? tr("Eos console") : console.shownName();
        auto* item = new QListWidgetItem(
            tr("%1\n%2 · %3").arg(name, console.host, shownName(console.network)), consoles_);
        item->setData(Qt::UserRole, int(at));
        if (configuration && isSameConsole(console, *configuration)) {
            QFont bold = item->font();
            bold.setBold(true);
            item->setFont(bold);
        }
    }
    consoles_->setVisible(!found.isEmpty());
}

} // namespace orvane
