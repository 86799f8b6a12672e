// `orvane overlay-picture`: draws an overlay content into a PNG, so anyone can look at the
// overlay without a camera.

#include "commands/Command.h"
#include "overlay/OverlayContentJson.h"
#include "overlay/OverlayPicture.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>

#include <cstdio>

namespace orvane {

namespace {

std::optional<QSize> parseSize(const QString& text)
{
    static const QRegularExpression pattern(QStringLiteral("^(\\d{1,5})[xX](\\d{1,5})$"));
    const auto match = pattern.match(text.trimmed());
    if (!match.hasMatch())
        return std::nullopt;
    const QSize size(match.captured(1).toInt(), match.captured(2).toInt());
    if (size.width() < 16 || size.height() < 16 || size.width() > 8192 || size.height() > 8192)
        return std::nullopt;
    return size;
}

int fail(const QString& message)
{
    std::fprintf(stderr, "orvane overlay-picture: %s\n", qPrintable(message));
    return 1;
}

int run(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Draws the overlay over a dim stage backdrop and writes it as a PNG.\n"
        "The content is the layout editor's sample unless --busy or --content is given."));
    parser.addHelpOption();
    const QCommandLineOption sizeOption(QStringLiteral("size"),
                                        QStringLiteral("Frame size in pixels (default 1920x1080)."),
                                        QStringLiteral("WxH"), QStringLiteral("1920x1080"));
    const QCommandLineOption contentOption(
        QStringLiteral("content"),
        QStringLiteral("Draw the overlay content described in a JSON file."),
        QStringLiteral("FILE.json"));
    const QCommandLineOption sampleOption(
        QStringLiteral("sample"), QStringLiteral("Draw the layout editor's sample content."));
    const QCommandLineOption busyOption(QStringLiteral("busy"),
                                        QStringLiteral("Draw a busy moment of a show."));
    const QCommandLineOption timeOption(
        QStringLiteral("time"),
        QStringLiteral("The instant to draw, as an ISO 8601 date and time (default: now)."),
        QStringLiteral("WHEN"));
    parser.addOptions({sizeOption, contentOption, sampleOption, busyOption, timeOption});
    parser.addPositionalArgument(QStringLiteral("OUT.png"),
                                 QStringLiteral("The picture to write."));
    if (!parser.parse(QStringList{QStringLiteral("orvane overlay-picture")} + arguments))
        return fail(parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) {
        std::fputs(qPrintable(parser.helpText()), stdout);
        return 0;
    }
    const QStringList positional = parser.positionalArguments();
    if (positional.size() != 1)
        return fail(QStringLiteral("give exactly one output file (see --help)"));
    const int sources = int(parser.isSet(contentOption)) + int(parser.isSet(sampleOption)) +
                        int(parser.isSet(busyOption));
    if (sources > 1)
        return fail(QStringLiteral("choose one of --content, --sample and --busy"));
    const auto size = parseSize(parser.value(sizeOption));
    if (!size)
        return fail(QStringLiteral("the size must be WIDTHxHEIGHT, each 16 to 8192 pixels"));

    WallTime now = Clock::system().wallNow();
    if (parser.isSet(timeOption)) {
        const QDateTime when = QDateTime::fromString(parser.value(timeOption), Qt::ISODateWithMs);
        if (!when.isValid())
            return fail(QStringLiteral("cannot read the time '%1'").arg(parser.value(timeOption)));
        now = WallTime(std::chrono::milliseconds(when.toMSecsSinceEpoch()));
    }

    OverlayContent content = sampleOverlayContent(now);
    if (parser.isSet(busyOption))
        content = busyShowOverlayContent(now);
    if (parser.isSet(contentOption)) {
        const QString path = parser.value(contentOption);
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            return fail(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
        QJsonParseError error{};
        const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
        if (error.error != QJsonParseError::NoError)
            return fail(QStringLiteral("%1 is not JSON: %2").arg(path, error.errorString()));
        auto decoded =
            overlayContentFromJson(document.object(), now, QFileInfo(path).absoluteDir());
        if (!decoded)
            return fail(QStringLiteral("%1 does not describe an overlay content").arg(path));
        content = std::move(*decoded);
    }

    const QImage picture = OverlayPicture::render(content, *size, now);
    if (!picture.save(positional.first(), "PNG"))
        return fail(QStringLiteral("cannot write %1").arg(positional.first()));
    return 0;
}

const CommandRegistration registration{
    {"overlay-picture", "draw the overlay into a PNG (sample, busy show or a JSON content)",
     AppKind::gui, &run}};

} // namespace

} // namespace orvane
