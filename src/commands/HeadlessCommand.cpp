// orvane [--headless] [options]: runs the whole application from the settings. Headless, it
// prints what happens one sentence a line, is driven by "/tavrin/" OSC commands and watched
// through the web page, and on SIGINT or SIGTERM finishes every recording before it exits.

#include "commands/Command.h"
#include "commands/CommandSupport.h"
#include "commands/Headless.h"

#include "app/AppModel.h"
#include "app/RunOptions.h"
#include "app/StatusReporter.h"
#include "settings/AppSettings.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QTimer>

#include <cstdio>

namespace orvane {

namespace {

// How long quitting waits for the movies' chapters once the movies are closed.
constexpr qint64 kChapterGraceMilliseconds = 10'000;

} // namespace

int runApplication(const RunOptions& options)
{
    AppModel model(openSettings(options), options);
    StatusReporter reporter(model);
    QObject::connect(&reporter, &StatusReporter::line, &reporter, &printLine);

    // The first signal finishes the recordings and the cue logs, then quits; a second one
    // quits at once (the movie written so far stays readable).
    int signalCount = 0;
    qint64 firstSignalAt = 0;
    const bool watchesSignals = onInterrupt(model, [&] {
        // A signal sent to the whole process group arrives twice at once: only a second
        // one that comes later means "now".
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        if (++signalCount > 1 && now - firstSignalAt < 1000)
            return;
        if (signalCount == 1)
            firstSignalAt = now;
        if (signalCount > 1) {
            printLine(QStringLiteral("Quitting now."));
            QCoreApplication::exit(1);
            return;
        }
        const auto quitWhenFinished = [&model] {
            // Polled until every movie is finished; the timer belongs to the application, so
            // nothing outlives it.
            auto* poll = new QTimer(QCoreApplication::instance());
            poll->setInterval(50);
            // The movies are closed and playable, with their cue logs, by now; what may still
            // run is the rewrite that adds their chapters. A long show's rewrite can take
            // minutes, longer than a service manager waits: after a grace it is left to the
            // next start, which finishes it from the recording's journal.
            QElapsedTimer sinceClosed;
            sinceClosed.start();
            const auto tryQuit = [&model, poll, sinceClosed] {
                if (model.recording().finishingCount() > 0) {
                    if (sinceClosed.elapsed() < kChapterGraceMilliseconds)
                        return;
                    printLine(QStringLiteral("The movies are playable with their cue logs; "
                                             "Orvane adds their chapters the next time it "
                                             "starts."));
                }
                poll->stop();
                model.settings().flush();
                printLine(QStringLiteral("Orvane stopped."));
                QCoreApplication::quit();
            };
            QObject::connect(poll, &QTimer::timeout, tryQuit);
            poll->start();
            tryQuit();
        };
        if (model.isRecording()) {
            printLine(QStringLiteral("Finishing the recording before quitting…"));
            model.stopRecording(quitWhenFinished);
        } else {
            quitWhenFinished();
        }
    });
    if (!watchesSignals) {
        std::perror("orvane: socketpair");
        return 1;
    }

    printLine(QStringLiteral("Orvane is running headless. Recordings go to “%1”.")
                  .arg(model.recordingsFolder()));
    model.start();
    return QCoreApplication::exec();
}

namespace {

int run(const QStringList& arguments)
{
    const auto parsed = parseRunOptions(arguments);
    if (const auto* error = std::get_if<RunOptionsError>(&parsed)) {
        std::fprintf(stderr, "orvane: %s\n", qPrintable(error->message));
        return 2;
    }
    auto options = std::get<RunOptions>(parsed);
    if (options.help) {
        std::fputs(qPrintable(runOptionsHelp()), stdout);
        return 0;
    }
    options.headless = true;
    return runApplication(options);
}

const CommandRegistration registration{
    {"headless", "Run Orvane without a window (see 'orvane --help')", AppKind::gui, &run}};

} // namespace

} // namespace orvane
