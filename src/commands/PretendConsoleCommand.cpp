// `orvane pretend-console`: a pretend Eos console to try Orvane without a real one.

#include "commands/Command.h"
#include "peers/PretendConsole.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTextStream>

#include <cstdio>

#include <unistd.h>

namespace orvane {

namespace {

std::optional<quint16> portOption(const QCommandLineParser& parser, const QString& name)
{
    bool ok = false;
    const int port = parser.value(name).toInt(&ok);
    if (!ok || port < 1 || port > 65535)
        return std::nullopt;
    return quint16(port);
}

int run(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("A pretend Eos console. It speaks OSC 1.1 (SLIP) on TCP port 3037 and "
                       "OSC 1.0 (length-prefixed) on TCP port 3032, answers discovery on UDP "
                       "port 3034, and fires cues when Go is pressed. Type 'go', 'fire "
                       "NUMBER' or 'quit' on standard input."));
    parser.addHelpOption();
    const QCommandLineOption address({"a", "address"}, "Listen on this IPv4 address.", "address",
                                     "0.0.0.0");
    const QCommandLineOption slipPort("slip-port", "TCP port for OSC 1.1 (SLIP).", "port", "3037");
    const QCommandLineOption lengthPort("length-port", "TCP port for OSC 1.0 (length-prefixed).",
                                        "port", "3032");
    const QCommandLineOption discoveryPort("discovery-port", "UDP port for discovery requests.",
                                           "port", "3034");
    const QCommandLineOption showName("show", "The show name it reports.", "name", "Pretend Show");
    const QCommandLineOption deviceName("name", "The console name in discovery replies.", "name",
                                        "Pretend Eos");
    const QCommandLineOption consoleID("id", "The console identity in discovery replies.", "id",
                                       "PRETEND-EOS-1");
    const QCommandLineOption tcpOnly("no-discovery", "Do not answer discovery requests.");
    const QCommandLineOption notEos("not-eos",
                                    "Accept connections but never speak Eos (plain text only).");
    const QCommandLineOption autoGo("auto-go", "Press Go every SECONDS.", "seconds");
    parser.addOptions({address, slipPort, lengthPort, discoveryPort, showName, deviceName,
                       consoleID, tcpOnly, notEos, autoGo});
    if (!parser.parse(QStringList{QStringLiteral("orvane pretend-console")} + arguments)) {
        std::fprintf(stderr, "%s\n", qPrintable(parser.errorText()));
        return 2;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        std::printf("%s", qPrintable(parser.helpText()));
        return 0;
    }

    PretendConsole::Options options;
    const auto slip = portOption(parser, slipPort.names().first());
    const auto length = portOption(parser, lengthPort.names().first());
    const auto discovery = portOption(parser, discoveryPort.names().first());
    options.address = QHostAddress(parser.value(address));
    if (!slip || !length || !discovery || options.address.protocol() != QAbstractSocket::IPv4Protocol) {
        std::fprintf(stderr, "orvane pretend-console: give ports between 1 and 65535 and an "
                             "IPv4 address\n");
        return 2;
    }
    options.slipPort = *slip;
    options.lengthPort = *length;
    options.discoveryPort = *discovery;
    options.showName = parser.value(showName);
    options.deviceName = parser.value(deviceName);
    options.consoleID = parser.value(consoleID);
    options.answersDiscovery = !parser.isSet(tcpOnly);
    options.speaksEos = !parser.isSet(notEos);

    PretendConsole console(options);
    QString error;
    if (!console.start(&error)) {
        std::fprintf(stderr, "orvane pretend-console: %s\n", qPrintable(error));
        return 1;
    }
    std::printf("Pretend Eos console \"%s\" on %s: OSC 1.1 on TCP %d, OSC 1.0 on TCP %d%s\n",
                qPrintable(options.deviceName), qPrintable(options.address.toString()),
                options.slipPort, options.lengthPort,
                options.answersDiscovery
                    ? qPrintable(QStringLiteral(", discovery on UDP %1").arg(options.discoveryPort))
                    : "");
    std::fflush(stdout);

    Timer goTimer(Clock::system());
    if (parser.isSet(autoGo)) {
        const double seconds = parser.value(autoGo).toDouble();
        if (seconds <= 0) {
            std::fprintf(stderr, "orvane pretend-console: --auto-go needs a positive number\n");
            return 2;
        }
        goTimer.startRepeating(Seconds(seconds), [&] { console.go(); });
    }

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QTextStream lines(stdin);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        QString line;
        if (!lines.readLineInto(&line)) {
            input.setEnabled(false); // end of input: keep serving until killed
            return;
        }
        const QStringList words = line.simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (words.isEmpty())
            return;
        if (words[0] == u"go") {
            console.go();
        } else if (words[0] == u"fire" && words.size() == 2) {
            if (!console.fireCue(words[1]))
                std::printf("no cue %s\n", qPrintable(words[1]));
        } else if (words[0] == u"quit") {
            QCoreApplication::quit();
        } else {
            std::printf("commands: go, fire NUMBER, quit\n");
        }
        std::fflush(stdout);
    });
    return QCoreApplication::exec();
}

const CommandRegistration registration{
    {"pretend-console", "Run a pretend Eos console to try Orvane without one", AppKind::core, &run}};

} // namespace

} // namespace orvane
