#pragma once

#include "app/RunOptions.h"
#include "capture/CaptureEngine.h"
#include "settings/AppSettings.h"

#include <QCommandLineOption>

#include <functional>
#include <memory>
#include <optional>

class QCommandLineParser;
class QObject;

namespace orvane {

// --size WxH and --fps N for the commands that run the built-in test pattern.
struct TestPatternOptions {
    QCommandLineOption size;
    QCommandLineOption fps;
};
TestPatternOptions addTestPatternOptions(QCommandLineParser& parser);
// The format asked for; none when a value is not a usable size or rate.
std::optional<CaptureEngine::TestPatternFormat>
testPatternFormat(const QCommandLineParser& parser, const TestPatternOptions& options);

// Calls `onSignal` on the main thread's event loop for every SIGINT and SIGTERM, for as long as
// `context` lives; the signal handler itself only writes a byte to a socket. Returns false when
// the socket cannot be made.
bool onInterrupt(QObject& context, std::function<void()> onSignal);

// One status sentence on standard output, at once (scripts read them line by line).
void printLine(const QString& text);

// The settings of the application's run: the file `--settings` names, else the user's own.
std::unique_ptr<AppSettings> openSettings(const RunOptions& options);

} // namespace orvane
