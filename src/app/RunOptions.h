#pragma once

#include <QString>
#include <QStringList>

#include <optional>
#include <variant>

namespace orvane {

// What the command line asks of one run of Orvane. Each overrides the settings for this run
// only; nothing of it is written to the settings file. Plain value; any thread.
struct RunOptions {
    bool headless = false;                   // --headless: no window even with a display
    bool demo = false;                       // --demo: the demo show runs from the start
    bool web = false;                        // --web: the web viewer on
    std::optional<int> webPort;              // --web PORT: on this port
    bool record = false;                     // --record: record as soon as the camera is live
    std::optional<QString> settingsFile;     // --settings FILE instead of the standard store
    std::optional<QString> recordingsFolder; // --recordings DIR instead of Videos/Orvane
    bool help = false;                       // --help
    friend bool operator==(const RunOptions&, const RunOptions&) = default;
};

// A command line that cannot be run, with the sentence that says why.
struct RunOptionsError {
    QString message;
};

// Reads the arguments after "orvane" (or after "orvane headless"). "--web" takes the next
// argument as its port only when that is a number; a port outside 1 to 65535 is an error.
std::variant<RunOptions, RunOptionsError> parseRunOptions(const QStringList& arguments);

// What --help prints.
QString runOptionsHelp();

} // namespace orvane
