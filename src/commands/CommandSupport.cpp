#include "commands/CommandSupport.h"

#include <QCommandLineParser>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace orvane {

namespace {

int signalSocket[2] = {-1, -1};

void writeSignal(int number)
{
    const char byte = char(number);
    [[maybe_unused]] const auto written = ::write(signalSocket[1], &byte, 1);
}

} // namespace

TestPatternOptions addTestPatternOptions(QCommandLineParser& parser)
{
    TestPatternOptions options{
        {QStringLiteral("size"), QStringLiteral("Picture size (default 1920x1080)."),
         QStringLiteral("WxH"), QStringLiteral("1920x1080")},
        {QStringLiteral("fps"), QStringLiteral("Frames per second (default 30)."),
         QStringLiteral("N"), QStringLiteral("30")},
    };
    parser.addOptions({options.size, options.fps});
    return options;
}

std::optional<CaptureEngine::TestPatternFormat> testPatternFormat(const QCommandLineParser& parser,
                                                                  const TestPatternOptions& options)
{
    const QStringList dimensions = parser.value(options.size).split(QLatin1Char('x'));
    if (dimensions.size() != 2)
        return std::nullopt;
    CaptureEngine::TestPatternFormat format;
    bool widthOK = false;
    bool heightOK = false;
    bool fpsOK = false;
    format.width = dimensions[0].toInt(&widthOK);
    format.height = dimensions[1].toInt(&heightOK);
    format.framesPerSecond = parser.value(options.fps).toDouble(&fpsOK);
    const bool sizeOK = widthOK && heightOK && format.width >= 16 && format.height >= 16 &&
                        format.width % 2 == 0 && format.height % 2 == 0;
    if (!sizeOK || !fpsOK || !(format.framesPerSecond > 0) || format.framesPerSecond > 240)
        return std::nullopt;
    return format;
}

bool onInterrupt(QObject& context, std::function<void()> onSignal)
{
    if (signalSocket[0] < 0 &&
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalSocket) != 0)
        return false;
    auto* notifier = new QSocketNotifier(signalSocket[0], QSocketNotifier::Read, &context);
    QObject::connect(notifier, &QSocketNotifier::activated, [onSignal = std::move(onSignal)] {
        char byte = 0;
        [[maybe_unused]] const auto got = ::read(signalSocket[0], &byte, 1);
        onSignal();
    });
    struct sigaction action {};
    action.sa_handler = writeSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return true;
}

void printLine(const QString& text)
{
    std::fputs(qPrintable(text), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

std::unique_ptr<AppSettings> openSettings(const RunOptions& options)
{
    if (!options.settingsFile)
        return AppSettings::openStandard();
    auto location = AppSettings::standardLocation();
    location.storeFile = *options.settingsFile;
    return std::make_unique<AppSettings>(location);
}

} // namespace orvane
