#pragma once

// What the console link tests share: a private network namespace for the test, networks with
// pretend hosts beside it, and pretend consoles with their sockets on those hosts.
#include "peers/PretendConsole.h"
#include "support/NetNamespace.h"

#include <QTest>

#include <unistd.h>

namespace orvane::testing {

inline QHostAddress address(const char* text)
{
    return QHostAddress(QString::fromLatin1(text));
}

// A network from `local` in the test's namespace to a pretend host holding `peers`; null when
// it cannot be made.
inline std::unique_ptr<NetNamespace> network(const QString& name, const QString& local,
                                             const QStringList& peers, int prefixLength = 24)
{
    QString error;
    auto made = NetNamespace::create(name, QHostAddress(local), QHostAddress(peers.first()),
                                     prefixLength, &error);
    for (qsizetype at = 1; made && at < peers.size(); ++at) {
        if (!made->addPeerAddress(QHostAddress(peers[at]), prefixLength, &error))
            made.reset();
    }
    if (!made)
        qWarning("network %s: %s", qPrintable(name), qPrintable(error));
    return made;
}

// A pretend console on `at`, with its sockets on `host` (the test's namespace when null).
inline std::unique_ptr<PretendConsole> startConsole(NetNamespace* host, const char* at,
                                                    PretendConsole::Options options = {},
                                                    Clock& clock = Clock::system())
{
    options.address = address(at);
    auto console = std::make_unique<PretendConsole>(options, clock);
    if (host)
        console->setSocketFactory([host](int type) { return host->socket(type); });
    QString error;
    if (!console->start(&error))
        qWarning("pretend console: %s", qPrintable(error));
    return console;
}

// Runs the tests of `Test` in a network namespace of their own, entered before any thread
// starts so that every thread shares it. Without root there is none, and the tests are skipped.
template <class Test> int runIsolated(int argc, char** argv)
{
    QString error;
    const bool isolated = NetNamespace::isolateThisProcess(&error);
    QCoreApplication app(argc, argv);
    if (!isolated && ::geteuid() != 0) {
        qInfo("SKIP: network namespaces need root; run the suite with scripts/offline");
        return 0;
    }
    if (!isolated) {
        qCritical("%s", qPrintable(error));
        return 1;
    }
    Test test;
    return QTest::qExec(&test, argc, argv);
}

} // namespace orvane::testing
