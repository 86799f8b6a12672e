// `orvane osc-monitor`: listens for OSC on a UDP port and prints every message it hears, the
// tool to reach for when a console or a cue "isn't showing up".

#include "commands/Command.h"

#include "osc/OSCListener.h"
#include "osc/OSCMessage.h"
#include "osc/OSCMessageText.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QLoggingCategory>
#include <QRegularExpression>

#include <cstdio>

namespace orvane {

namespace {

// The listener's port when the settings hold none.
constexpr int kDefaultPort = 8001;

void printLine(std::FILE* to, const std::string& line)
{
    std::fwrite(line.data(), 1, line.size(), to);
    std::fputc('\n', to);
    std::fflush(to);
}

int run(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Listens for OSC over UDP and prints every message it hears, one line "
                       "each:\nADDRESS TAGS ARGUMENTS, for example\n"
                       "/eos/out/active/cue/text ,s \"1/14 Intro 5.0 40%\"\n"
                       "The listener's state goes to standard error."));
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")},
                                        QStringLiteral("Show this help."));
    const QCommandLineOption portOption(
        QStringLiteral("port"),
        QStringLiteral("The UDP port to listen on (default %1).").arg(kDefaultPort),
        QStringLiteral("N"), QString::number(kDefaultPort));
    parser.addOption(helpOption);
    parser.addOption(portOption);
    if (!parser.parse(QStringList{QStringLiteral("orvane osc-monitor")} + arguments)) {
        printLine(stderr, "orvane osc-monitor: " + parser.errorText().toStdString());
        return 2;
    }
    if (parser.isSet(helpOption)) {
        QString help = parser.helpText();
        help.replace(QRegularExpression(QStringLiteral("^Usage: [^\\[]*")),
                     QStringLiteral("Usage: orvane osc-monitor "));
        std::fputs(help.toStdString().c_str(), stdout);
        return 0;
    }
    if (!parser.positionalArguments().isEmpty()) {
        printLine(stderr, "orvane osc-monitor: unexpected argument '" +
                              parser.positionalArguments().constFirst().toStdString() + "'");
        return 2;
    }
    bool isNumber = false;
    const int port = parser.value(portOption).toInt(&isNumber);
    if (!isNumber) {
        printLine(stderr, "orvane osc-monitor: the port must be a number, not '" +
                              parser.value(portOption).toStdString() + "'");
        return 2;
    }

    // The listener's state lines below say what its log would.
    QLoggingCategory::setFilterRules(QStringLiteral("orvane.osc=false"));
    OSCListener listener;
    listener.setOnPacket([](const QByteArray& datagram, const OSCListener::Sender& sender) {
        const std::vector<OSCMessage> messages = decodeOSCPacket(datagram);
        if (messages.empty()) {
            printLine(stderr, QStringLiteral("Ignored %1 bytes from %2 that are not OSC.")
                                  .arg(datagram.size())
                                  .arg(sender.host)
                                  .toStdString());
        }
        for (const OSCMessage& message : messages)
            printLine(stdout, oscMessageText(message));
    });
    QObject::connect(&listener, &OSCListener::stateChanged,
                     [&listener] { printLine(stderr, listener.stateText().toStdString()); });
    listener.configure(true, port);
    // A port that can never work is not retried: nothing more will happen.
    if (listener.state().kind == OSCListener::State::Kind::failed && (port < 1 || port > 65535))
        return 1;
    return QCoreApplication::exec();
}

const CommandRegistration registration{
    {"osc-monitor", "Print every OSC message that arrives on a UDP port", AppKind::core, &run}};

} // namespace

} // namespace orvane
