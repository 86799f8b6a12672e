#include "app/EosSettings.h"

#include "base/Checks.h"
#include "settings/AppSettings.h"

namespace orvane {

EosConnection::Configuration eosConfiguration(const AppSettings& settings)
{
    return EosConnection::Configuration{settings.eosEnabled(),   settings.eosAutoConnect(),
                                        settings.eosHost(),      settings.eosPort(),
                                        settings.eosFraming(),   settings.eosNetwork(),
                                        settings.eosConsoleID(), settings.eosConsoleName()};
}

EosSettings::EosSettings(EosConnection& connection, AppSettings& settings)
    : QObject(&connection)
    , connection_(connection)
    , settings_(settings)
{
    for (auto changed : {&AppSettings::eosEnabledChanged, &AppSettings::eosHostChanged,
                         &AppSettings::eosPortChanged, &AppSettings::eosFramingChanged,
                         &AppSettings::eosNetworkChanged, &AppSettings::eosAutoConnectChanged,
                         &AppSettings::eosConsoleIDChanged, &AppSettings::eosConsoleNameChanged}) {
        connect(&settings_, changed, this, [this] {
            if (!isWriting_)
                apply();
        });
    }
    connect(&connection_, &EosConnection::consoleAdopted, this, &EosSettings::store);
    connect(&connection_, &EosConnection::consoleForgotten, this, &EosSettings::storeForgotten);
    connect(&connection_, &EosConnection::turnedOn, this, &EosSettings::storeTurnedOn);
}

void EosSettings::apply()
{
    assertOnOwnThread(this);
    connection_.apply(eosConfiguration(settings_));
}

template <class Write> void EosSettings::writeThenApply(Write write)
{
    // Each write announces itself; applying half-written settings would point the link at a
    // mix of the old console and the new one.
    isWriting_ = true;
    write();
    isWriting_ = false;
    apply();
}

void EosSettings::store(const EosConnection::Adoption& adoption)
{
    writeThenApply([&] {
        settings_.setEosNetwork(adoption.network);
        settings_.setEosConsoleID(adoption.consoleID);
        settings_.setEosConsoleName(adoption.consoleName);
        settings_.setEosHost(adoption.host);
        settings_.setEosEnabled(true);
    });
}

void EosSettings::storeForgotten()
{
    writeThenApply([&] {
        settings_.setEosConsoleID(std::nullopt);
        settings_.setEosConsoleName(std::nullopt);
        settings_.setEosHost(QString());
    });
}

void EosSettings::storeTurnedOn()
{
    writeThenApply([&] { settings_.setEosEnabled(true); });
}

} // namespace orvane
