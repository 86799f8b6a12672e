#pragma once

#include <QStringList>

#include <vector>

namespace orvane {

// What a subcommand needs of Qt before it runs.
enum class AppKind {
    core,    // event loop and networking only
    gui,     // fonts and painting (offscreen when there is no display)
    widgets, // windows
};

// One `orvane NAME ...` subcommand. `run` gets the arguments after the name and returns the
// process's exit code; it parses them itself and answers --help.
struct Command {
    const char* name;
    const char* summary;
    AppKind kind;
    int (*run)(const QStringList& arguments);
};

// Registers a subcommand from a file in src/commands/:
//     static const CommandRegistration registration{{"osc-monitor", "...", AppKind::core, &run}};
class CommandRegistration {
public:
    explicit CommandRegistration(Command command);
};

const std::vector<Command>& registeredCommands();

} // namespace orvane
