#pragma once

#include "eos/EosConnection.h"

#include <QObject>

namespace orvane {

class AppSettings;

// The Eos link's configuration as the settings describe it.
EosConnection::Configuration eosConfiguration(const AppSettings& settings);

// Keeps an Eos link in line with the settings: every change of an Eos setting applies the
// configuration again, and what the link reports (a console adopted or forgotten, the link
// turned on) is written to the settings and applied once, after the last write. Borrows both;
// it is a child of the connection. Main thread only.
class EosSettings : public QObject {
    Q_OBJECT
public:
    EosSettings(EosConnection& connection, AppSettings& settings);

    // Applies the configuration that the settings describe now.
    void apply();

private:
    void store(const EosConnection::Adoption& adoption);
    void storeForgotten();
    void storeTurnedOn();
    template <class Write> void writeThenApply(Write write);

    EosConnection& connection_;
    AppSettings& settings_;
    bool isWriting_ = false;
};

} // namespace orvane
