// The orvane executable: the application and the small tools a technician reaches for.

#include "commands/Command.h"
#include "commands/Headless.h"
#include "commands/Window.h"

#include "app/RunOptions.h"

#include <QCoreApplication>
#include <QApplication>
#include <QGuiApplication>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <variant>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace orvane {

namespace {

std::vector<Command>& commandTable()
{
    static std::vector<Command> table;
    return table;
}

void printUsage(std::FILE* to)
{
    std::fprintf(to, "Usage: orvane [OPTIONS]   or   orvane COMMAND [OPTIONS]\n\n"
                     "Burns the show's cues and timecode into camera video, records it and\n"
                     "shares it on the network.\n\nCommands:\n");
    auto commands = registeredCommands();
    std::sort(commands.begin(), commands.end(),
              [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; });
    for (const auto& command : commands)
        std::fprintf(to, "  %-16s %s\n", command.name, command.summary);
    std::fprintf(to, "\nRun 'orvane COMMAND --help' for a command's options.\n\n");
    std::fputs(qPrintable(runOptionsHelp()), to);
}

std::unique_ptr<QCoreApplication> makeApplication(AppKind kind, int& argc, char** argv)
{
    switch (kind) {
    case AppKind::core:
        return std::make_unique<QCoreApplication>(argc, argv);
    case AppKind::gui:
    case AppKind::widgets:
        if (qEnvironmentVariableIsEmpty("DISPLAY") &&
            qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") &&
            qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        if (kind == AppKind::widgets)
            return std::make_unique<QApplication>(argc, argv);
        return std::make_unique<QGuiApplication>(argc, argv);
    }
    return nullptr;
}

int runWholeApplication(int& argc, char** argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    const auto parsed = parseRunOptions(arguments);
    if (const auto* error = std::get_if<RunOptionsError>(&parsed)) {
        std::fprintf(stderr, "orvane: %s\n", qPrintable(error->message));
        return 2;
    }
    auto options = std::get<RunOptions>(parsed);
    const bool hasDisplay =
        !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
    if (!hasDisplay)
        options.headless = true;
    auto app = makeApplication(options.headless ? AppKind::gui : AppKind::widgets, argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Orvane"));
    QCoreApplication::setOrganizationName(QStringLiteral("Orvane"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ORVANE_VERSION));
    if (options.help) {
        printUsage(stdout);
        return 0;
    }
    if (options.headless)
        return runApplication(options);
    return runWindow(options);
}

} // namespace

CommandRegistration::CommandRegistration(Command command)
{
    commandTable().push_back(command);
}

const std::vector<Command>& registeredCommands()
{
    return commandTable();
}

} // namespace orvane

int main(int argc, char** argv)
{
    using namespace orvane;
#if defined(__GLIBC__)
    // Pictures and encoder buffers are megabytes each. glibc raises its mmap threshold each
    // time such a block is freed, after which these blocks come from the heaps of the threads
    // that made them and stay resident when freed: a show's memory would creep up at every
    // recording. A fixed threshold keeps them mapped, so freeing one gives it back.
    ::mallopt(M_MMAP_THRESHOLD, 1 << 20);
#endif
    // Qt draws glyphs above 64 px as uncached paths; overlay text at 4K is larger than that.
    if (qEnvironmentVariableIsEmpty("QT_MAX_CACHED_GLYPH_SIZE"))
        qputenv("QT_MAX_CACHED_GLYPH_SIZE", "256");

    if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0 ||
                      std::strcmp(argv[1], "help") == 0)) {
        printUsage(stdout);
        return 0;
    }
    // No command: the application itself, with a window when there is a display.
    if (argc < 2 || argv[1][0] == '-')
        return runWholeApplication(argc, argv);
    const auto& commands = registeredCommands();
    const auto found = std::find_if(commands.begin(), commands.end(), [&](const Command& c) {
        return std::strcmp(c.name, argv[1]) == 0;
    });
    if (found == commands.end()) {
        std::fprintf(stderr, "orvane: unknown command '%s'\n\n", argv[1]);
        printUsage(stderr);
        return 2;
    }
    auto app = makeApplication(found->kind, argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Orvane"));
    QCoreApplication::setOrganizationName(QStringLiteral("Orvane"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ORVANE_VERSION));
    QStringList arguments = QCoreApplication::arguments().mid(2);
    return found->run(arguments);
}
