// orvane serve: shows the built-in test pattern with the demo show's overlay on the web viewer
// and as an NDI source, so a person can watch the outputs in a browser without cameras or the
// application.

#include "commands/Command.h"

#include "capture/CaptureEngine.h"
#include "capture/TestPatternSource.h"
#include "outputs/Outputs.h"
#include "app/OverlayAssembly.h"
#include "overlay/OverlayContent.h"
#include "show/DemoShow.h"
#include "show/ShowData.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace orvane {

namespace {

// Ctrl+C and SIGTERM end the event loop through a pipe, since a signal handler may only write.
int quitPipe[2] = {-1, -1};

void quitOnSignal(int)
{
    const char byte = 0;
    [[maybe_unused]] const auto written = ::write(quitPipe[1], &byte, 1);
}

void quitOnInterrupt()
{
    if (::pipe2(quitPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    auto* notifier =
        new QSocketNotifier(quitPipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, [] { QCoreApplication::quit(); });
    std::signal(SIGINT, quitOnSignal);
    std::signal(SIGTERM, quitOnSignal);
}

void printStatus(const Outputs& outputs)
{
    const WebViewer::State state = outputs.webState();
    switch (state.kind) {
    case WebViewer::State::Kind::off:
        break;
    case WebViewer::State::Kind::listening:
        std::printf("web viewer: listening on port %d\n", state.port);
        for (const QString& address : outputs.webAddresses())
            std::printf("  %s\n", qPrintable(address));
        break;
    case WebViewer::State::Kind::failed:
        std::printf("web viewer: %s\n", qPrintable(state.message));
        break;
    }
    std::fflush(stdout);
}

int run(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Sends the built-in test pattern with the demo show's overlay to the web viewer and as "
        "an NDI source until interrupted."));
    parser.addHelpOption();
    const QCommandLineOption port(QStringLiteral("port"),
                                  QStringLiteral("The web viewer's port (default 8090)."),
                                  QStringLiteral("N"), QStringLiteral("8090"));
    const QCommandLineOption ndiName(QStringLiteral("ndi-name"),
                                     QStringLiteral("The NDI source name (default Orvane)."),
                                     QStringLiteral("NAME"), QStringLiteral("Orvane"));
    const QCommandLineOption noNDI(QStringLiteral("no-ndi"), QStringLiteral("Do not send NDI."));
    const QCommandLineOption size(QStringLiteral("size"),
                                  QStringLiteral("Picture size (default 1920x1080)."),
                                  QStringLiteral("WxH"), QStringLiteral("1920x1080"));
    const QCommandLineOption fps(QStringLiteral("fps"),
                                 QStringLiteral("Frames per second (default 30)."),
                                 QStringLiteral("N"), QStringLiteral("30"));
    const QCommandLineOption seconds(QStringLiteral("seconds"),
                                     QStringLiteral("Stop after N seconds (default: never)."),
                                     QStringLiteral("N"));
    parser.addOptions({port, ndiName, noNDI, size, fps, seconds});
    parser.process(QStringList{QStringLiteral("orvane serve")} + arguments);

    CaptureEngine::TestPatternFormat format;
    const QStringList dimensions = parser.value(size).split(QLatin1Char('x'));
    bool ok = dimensions.size() == 2;
    bool part = false;
    if (ok) {
        format.width = dimensions[0].toInt(&ok);
        format.height = dimensions[1].toInt(&part);
        ok = ok && part && format.width >= 16 && format.height >= 16 && format.width % 2 == 0 &&
             format.height % 2 == 0;
    }
    format.framesPerSecond = parser.value(fps).toDouble(&part);
    ok = ok && part && format.framesPerSecond > 0 && format.framesPerSecond <= 240;
    const int webPort = parser.value(port).toInt(&part);
    ok = ok && part;
    double stopAfter = 0;
    if (parser.isSet(seconds)) {
        stopAfter = parser.value(seconds).toDouble(&part);
        ok = ok && part && stopAfter > 0;
    }
    if (!ok) {
        std::fprintf(stderr,
                     "orvane serve: check --port, --size, --fps and --seconds (see --help)\n");
        return 2;
    }

    CaptureEngine engine;
    engine.setTestPatternFormat(format);
    Outputs outputs;
    engine.addSink(outputs.sink());

    // The demo show plays through the show data, and every change becomes a new overlay.
    ShowData show;
    DemoShow demo([&show](const OSCMessage& message) { show.handle(message, DemoShow::kSender); });
    OverlaySources sources;
    sources.cameraLabel = QStringLiteral("Test Pattern");
    const auto refreshOverlay = [&] {
        sources.demoShowTime = demo.showTime();
        sources.showName = show.showName();
        sources.activeCue = show.activeCue();
        sources.pendingCue = show.pendingCue();
        sources.isHearingEos = show.isHearingEos();
        sources.activeParts = show.activeParts();
        sources.activeCueClock = show.activeCueClock();
        sources.runningPart = show.runningPart();
        sources.fields = show.fields();
        sources.gatheredAt = Clock::system().wallNow();
        engine.setOverlay(assembleOverlayContent(sources), sources.cameraLabel);
    };
    for (const auto signal :
         {&ShowData::activeCueChanged, &ShowData::pendingCueChanged, &ShowData::activePartsChanged,
          &ShowData::activeCueClockChanged, &ShowData::fieldsChanged,
          &ShowData::isHearingEosChanged, &ShowData::showNameChanged})
        QObject::connect(&show, signal, &engine, refreshOverlay);
    QObject::connect(&demo, &DemoShow::showTimeChanged, &engine, refreshOverlay);
    demo.start();
    refreshOverlay();

    QObject::connect(&outputs, &Outputs::webStateChanged, [&] { printStatus(outputs); });
    QObject::connect(&outputs, &Outputs::webViewersChanged, [](int viewers) {
        std::printf("web viewer: %d watching\n", viewers);
        std::fflush(stdout);
    });
    QObject::connect(&outputs, &Outputs::isSendingNDIChanged, [&](bool sending) {
        if (sending)
            std::printf("ndi: sending as \"%s\"\n", qPrintable(parser.value(ndiName)));
        std::fflush(stdout);
    });
    QObject::connect(&outputs, &Outputs::ndiStatusTextChanged, [](const QString& text) {
        if (!text.isEmpty())
            std::printf("ndi: %s\n", qPrintable(text));
        std::fflush(stdout);
    });
    QObject::connect(&outputs, &Outputs::ndiReceiversChanged, [](int receivers) {
        std::printf("ndi: %d receiving\n", receivers);
        std::fflush(stdout);
    });

    engine.configure(TestPatternSource::kID, std::nullopt, [](std::optional<CaptureError> error) {
        if (!error)
            return;
        std::fprintf(stderr, "orvane serve: %s\n", qPrintable(error->description()));
        QCoreApplication::exit(1);
    });
    outputs.apply({!parser.isSet(noNDI), parser.value(ndiName), true, webPort});

    quitOnInterrupt();
    if (stopAfter > 0)
        QTimer::singleShot(int(stopAfter * 1000), [] { QCoreApplication::quit(); });
    const int exitCode = QCoreApplication::exec();
    engine.removeSink(outputs.sink().get());
    return exitCode;
}

static const CommandRegistration registration{
    {"serve", "show the test pattern on the web viewer and over NDI", AppKind::gui, &run}};

} // namespace

} // namespace orvane
