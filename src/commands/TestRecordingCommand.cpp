// orvane test-recording: records the built-in test pattern for a few seconds, so a person can
// watch what a recording looks like and a test can check it.

#include "commands/Command.h"
#include "commands/CommandSupport.h"

#include "app/OverlayFeed.h"
#include "app/ShowInput.h"
#include "capture/CaptureEngine.h"
#include "capture/TestPatternSource.h"
#include "capture/ToneSource.h"
#include "show/DemoShow.h"
#include "show/ShowData.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QStandardPaths>
#include <QTimer>

#include <cstdio>
#include <optional>

namespace orvane {

namespace {

std::optional<MovieCodec> codecNamed(const QString& name)
{
    if (name == QLatin1String("hevc"))
        return MovieCodec::hevc;
    if (name == QLatin1String("h264"))
        return MovieCodec::h264;
    if (name == QLatin1String("prores"))
        return MovieCodec::proRes422Proxy;
    return std::nullopt;
}

int run(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Records the built-in test pattern with the demo show's overlay for a few seconds into "
        "the recordings folder."));
    parser.addHelpOption();
    const QCommandLineOption seconds(QStringLiteral("seconds"),
                                     QStringLiteral("How long to record (default 10)."),
                                     QStringLiteral("N"), QStringLiteral("10"));
    const QCommandLineOption codec(QStringLiteral("codec"),
                                   QStringLiteral("hevc, h264 or prores (default h264)."),
                                   QStringLiteral("codec"), QStringLiteral("h264"));
    const QCommandLineOption out(QStringLiteral("out"),
                                 QStringLiteral("Folder for the movie (default the recordings "
                                                "folder)."),
                                 QStringLiteral("DIR"));
    const QCommandLineOption sound(QStringLiteral("sound"),
                                   QStringLiteral("Record a 1 kHz test tone as the sound."));
    parser.addOptions({seconds, codec, out, sound});
    const TestPatternOptions patternOptions = addTestPatternOptions(parser);
    parser.process(QStringList{QStringLiteral("orvane test-recording")} + arguments);

    bool ok = false;
    const double duration = parser.value(seconds).toDouble(&ok);
    const auto chosenCodec = codecNamed(parser.value(codec));
    const auto format = testPatternFormat(parser, patternOptions);
    if (!ok || duration <= 0 || !chosenCodec || !format) {
        std::fprintf(stderr, "orvane test-recording: check --seconds, --codec, --size and --fps "
                             "(see --help)\n");
        return 2;
    }

    const QString folder =
        parser.isSet(out) ? parser.value(out)
                          : QDir(QStandardPaths::writableLocation(QStandardPaths::MoviesLocation))
                                .filePath(QStringLiteral("Orvane"));
    if (!QDir().mkpath(folder)) {
        std::fprintf(stderr, "orvane test-recording: could not create %s\n", qPrintable(folder));
        return 1;
    }
    const QString path = QDir(folder).filePath(
        QStringLiteral("Test Pattern ") +
        QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH.mm.ss")) +
        QStringLiteral(".mov"));

    CaptureEngine engine;
    engine.setTestPatternFormat(*format);

    // The demo show plays through the one door into the show data, and the overlay feed turns
    // every change into new content for the camera, as in the application: cues, fades,
    // fields, timecode and REC.
    ShowData show;
    ShowInput input(show);
    DemoShow demo(input.demoDelivery());
    OverlayFeed feed(show);
    feed.setDemoShow(&demo);
    feed.setRecordingStart(Clock::system().wallNow());
    feed.addCamera(engine, QStringLiteral("Test Pattern"));
    demo.start();
    int exitCode = 0;
    QTimer stopTimer;
    stopTimer.setSingleShot(true);
    QObject::connect(&stopTimer, &QTimer::timeout, [&] {
        engine.stopRecording([&](const Recorder::Outcome& outcome) {
            const CaptureStats stats = engine.stats();
            if (outcome.movie) {
                std::printf("saved: %s (%d frames dropped)\n", qPrintable(*outcome.movie),
                            stats.droppedFrames);
            } else {
                std::fprintf(stderr, "orvane test-recording: %s\n",
                             outcome.error ? qPrintable(outcome.error->description())
                                           : "no frame was recorded");
                exitCode = 1;
            }
            QCoreApplication::exit(exitCode);
        });
    });
    bool started = false;
    QObject::connect(&engine, &CaptureEngine::framesStarted, [&] {
        if (started)
            return;
        started = true;
        std::printf("recording: %s\n", qPrintable(path));
        std::fflush(stdout);
        stopTimer.start(int(duration * 1000));
    });
    engine.startRecording(path, *chosenCodec, parser.isSet(sound));
    engine.configure(
        TestPatternSource::kID, parser.isSet(sound) ? std::optional(ToneSource::kID) : std::nullopt,
        [&](std::optional<CaptureError> error) {
            if (!error)
                return;
            std::fprintf(stderr, "orvane test-recording: %s\n", qPrintable(error->description()));
            QCoreApplication::exit(1);
        });
    return QCoreApplication::exec();
}

static const CommandRegistration registration{
    {"test-recording", "record the test pattern for a few seconds", AppKind::gui, &run}};

} // namespace

} // namespace orvane
