// orvane serve: shows the built-in test pattern with the demo show's overlay on the web viewer
// and as an NDI source, so a person can watch the outputs in a browser without cameras or the
// application.

#include "commands/Command.h"
#include "commands/CommandSupport.h"

#include "app/OverlayFeed.h"
#include "app/ShowInput.h"
#include "capture/CaptureEngine.h"
#include "capture/TestPatternSource.h"
#include "outputs/Outputs.h"
#include "show/DemoShow.h"
#include "show/ShowData.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTimer>

#include <cstdio>

namespace orvane {

namespace {

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
    const QCommandLineOption seconds(QStringLiteral("seconds"),
                                     QStringLiteral("Stop after N seconds (default: never)."),
                                     QStringLiteral("N"));
    parser.addOptions({port, ndiName, noNDI, seconds});
    const TestPatternOptions patternOptions = addTestPatternOptions(parser);
    parser.process(QStringList{QStringLiteral("orvane serve")} + arguments);

    const auto format = testPatternFormat(parser, patternOptions);
    bool ok = format.has_value();
    bool part = false;
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
    engine.setTestPatternFormat(*format);
    Outputs outputs;
    engine.addSink(outputs.sink());

    // The demo show plays through the one door into the show data, and the overlay feed turns
    // every change into new content for the camera, as in the application.
    ShowData show;
    ShowInput input(show);
    DemoShow demo(input.demoDelivery());
    OverlayFeed feed(show);
    feed.setDemoShow(&demo);
    feed.addCamera(engine, QStringLiteral("Test Pattern"));
    demo.start();

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

    onInterrupt(engine, [] { QCoreApplication::quit(); });
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
