#include "app/RunOptions.h"

namespace orvane {

namespace {

bool looksLikeNumber(const QString& text)
{
    if (text.isEmpty())
        return false;
    for (const QChar c : text) {
        if (!c.isDigit())
            return false;
    }
    return true;
}

} // namespace

std::variant<RunOptions, RunOptionsError> parseRunOptions(const QStringList& arguments)
{
    RunOptions options;
    for (qsizetype at = 0; at < arguments.size(); ++at) {
        QString argument = arguments[at];
        std::optional<QString> attached; // --name=value
        if (argument.startsWith(QLatin1String("--")) && argument.contains(QLatin1Char('='))) {
            attached = argument.section(QLatin1Char('='), 1);
            argument = argument.section(QLatin1Char('='), 0, 0);
        }
        const auto value = [&]() -> std::optional<QString> {
            if (attached)
                return attached;
            if (at + 1 < arguments.size() && !arguments[at + 1].startsWith(QLatin1String("--")))
                return arguments[++at];
            return std::nullopt;
        };
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            options.help = true;
        } else if (argument == QLatin1String("--headless")) {
            options.headless = true;
        } else if (argument == QLatin1String("--demo")) {
            options.demo = true;
        } else if (argument == QLatin1String("--record")) {
            options.record = true;
        } else if (argument == QLatin1String("--web")) {
            options.web = true;
            std::optional<QString> port = attached;
            if (!port && at + 1 < arguments.size() && looksLikeNumber(arguments[at + 1]))
                port = arguments[++at];
            if (port) {
                bool ok = false;
                const int number = port->toInt(&ok);
                if (!ok || number < 1 || number > 65535)
                    return RunOptionsError{QStringLiteral("Choose a port between 1 and 65535.")};
                options.webPort = number;
            }
        } else if (argument == QLatin1String("--settings")) {
            const auto file = value();
            if (!file || file->isEmpty())
                return RunOptionsError{QStringLiteral("--settings needs a file.")};
            options.settingsFile = *file;
        } else if (argument == QLatin1String("--recordings")) {
            const auto folder = value();
            if (!folder || folder->isEmpty())
                return RunOptionsError{QStringLiteral("--recordings needs a folder.")};
            options.recordingsFolder = *folder;
        } else {
            return RunOptionsError{
                QStringLiteral("Unknown option “%1”. Try --help.").arg(arguments[at])};
        }
    }
    return options;
}

QString runOptionsHelp()
{
    return QStringLiteral(
        "Usage: orvane [--headless] [--demo] [--web [PORT]] [--record] [--settings FILE]\n"
        "              [--recordings DIR]\n"
        "       orvane COMMAND [OPTIONS]   (orvane help lists the commands)\n"
        "\n"
        "Runs Orvane from its settings: the OSC listener, the Eos and QLab links, the cameras\n"
        "(the test pattern when none is attached), the web viewer and NDI, and recording.\n"
        "Without a display it runs headless: it prints what happens, one sentence a line, is\n"
        "driven by \"/tavrin/\" OSC commands and finishes every recording on Ctrl-C or SIGTERM.\n"
        "\n"
        "Each option below counts for this run only; the settings file is not changed.\n"
        "  --headless          Run without a window, even when there is a display.\n"
        "  --demo              Play the demo show from the start.\n"
        "  --web [PORT]        Turn the web viewer on (on PORT, else the one in the settings).\n"
        "  --record            Start recording as soon as the camera is live.\n"
        "  --settings FILE     Read the settings from FILE instead of\n"
        "                      ~/.config/Orvane/Orvane.json.\n"
        "  --recordings DIR    Put recordings in DIR instead of ~/Videos/Orvane.\n"
        "  --help              Show this help.\n");
}

} // namespace orvane
