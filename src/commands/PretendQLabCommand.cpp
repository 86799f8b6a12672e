// `orvane pretend-qlab`: a pretend QLab on this machine, so Orvane's QLab link can be tried
// without a Mac. It opens one workspace, runs a Timecode cue and starts a sound cue now and then.

#include "commands/Command.h"
#include "peers/PretendQLab.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTimer>

#include <cstdio>

namespace orvane {

namespace {

int run(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Runs a pretend QLab that answers Orvane's QLab link over TCP with SLIP-framed OSC.");
    parser.addHelpOption();
    const QCommandLineOption port("port", "TCP port to listen on (default 53000).", "port", "53000");
    const QCommandLineOption address("address", "Address to listen on (default 127.0.0.1).",
                                     "address", "127.0.0.1");
    const QCommandLineOption workspace("workspace", "Name of the open workspace.", "name",
                                       "Pretend Show.qlab5");
    const QCommandLineOption passcode("passcode", "OSC passcode the workspace asks for.", "passcode");
    const QCommandLineOption empty("no-workspace", "Open no workspace.");
    parser.addOptions({port, address, workspace, passcode, empty});
    parser.process(QStringList{"orvane pretend-qlab"} + arguments);

    bool portOk = false;
    const int portNumber = parser.value(port).toInt(&portOk);
    const QHostAddress host(parser.value(address));
    if (!portOk || portNumber < 1 || portNumber > 65535 || host.isNull()) {
        std::fprintf(stderr, "pretend-qlab: give a port between 1 and 65535 and an IP address\n");
        return 2;
    }

    PretendQLab qlab;
    if (!qlab.listen(quint16(portNumber), host)) {
        std::fprintf(stderr, "pretend-qlab: cannot listen on %s port %d\n",
                     qPrintable(host.toString()), portNumber);
        return 1;
    }
    QObject::connect(&qlab, &PretendQLab::requestReceived, [](const QString& request) {
        std::printf("%s\n", qPrintable(request));
        std::fflush(stdout);
    });
    std::printf("Pretend QLab on %s port %d\n", qPrintable(host.toString()), portNumber);

    QTimer cycle;
    if (!parser.isSet(empty)) {
        const QString id = QStringLiteral("9D1E7C52-0B1A-4F8E-9A51-5E6F3C2D7A10");
        qlab.openWorkspace(id, parser.value(workspace), parser.value(passcode));
        qlab.addCue(id, {"L1", "", "Main Cue List", "Cue List", "", std::nullopt, {}, 1, 0});
        qlab.addCue(id, {"G1", "1", "Act 1", "Group", "L1", std::nullopt, {}, 1, 0});
        qlab.addCue(id, {"A1", "1.1", "Storm Ambience", "Audio", "G1", 6.0, {}, 1, 0});
        qlab.addCue(id, {"A2", "2", "Door Slam", "Audio", "L1", 2.5, {}, 1, 0});
        qlab.addCue(id, {"T1", "3", "", "Timecode", "L1", std::nullopt, "01:00:00;00", 6, 1});
        qlab.startCue(id, "T1");
        std::printf("Workspace \"%s\"%s, Timecode cue running from 01:00:00;00 at 29.97 drop frame\n",
                    qPrintable(parser.value(workspace)),
                    parser.isSet(passcode) ? " with a passcode" : "");
        // Every 10 s a sound starts; each stops after its own duration.
        QObject::connect(&cycle, &QTimer::timeout, [&qlab, id, next = 0]() mutable {
            const QString cue = next++ % 2 == 0 ? QStringLiteral("A1") : QStringLiteral("A2");
            qlab.startCue(id, cue);
            QTimer::singleShot(cue == u"A1" ? 6000 : 2500, &qlab,
                               [&qlab, id, cue] { qlab.stopCue(id, cue); });
        });
        cycle.start(10000);
    }
    std::fflush(stdout);
    return QCoreApplication::exec();
}

const CommandRegistration registration{
    {"pretend-qlab", "Run a pretend QLab to try the QLab link against", AppKind::core, &run}};

} // namespace

} // namespace orvane
