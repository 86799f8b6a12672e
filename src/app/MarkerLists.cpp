#include "app/MarkerLists.h"

#include "app/CueLog.h"

#include <QFileInfo>
#include <QSaveFile>
#include <QUrl>
#include <QXmlStreamWriter>

#include <algorithm>
#include <cmath>

namespace orvane {

namespace {

// A marker's name on one line.
QString oneLine(QString text)
{
    text.replace(QLatin1Char('\n'), QLatin1Char(' '));
    text.replace(QLatin1Char('\r'), QLatin1Char(' '));
    return text;
}

// A name in Resolve's marker comment, whose fields are divided by bars.
QString resolveText(const QString& text)
{
    return oneLine(text).replace(QLatin1Char('|'), QLatin1Char(' '));
}

std::optional<QString> writeWhole(const QString& path, const QByteArray& bytes)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        return file.errorString();
    return std::nullopt;
}

void writeRate(QXmlStreamWriter& xml, MarkerRate rate)
{
    xml.writeStartElement(QStringLiteral("rate"));
    xml.writeTextElement(QStringLiteral("timebase"), QString::number(rate.timebase));
    xml.writeTextElement(QStringLiteral("ntsc"),
                         rate.ntsc ? QStringLiteral("TRUE") : QStringLiteral("FALSE"));
    xml.writeEndElement();
}

} // namespace

QString chapterTitle(const CueLogEntry& row)
{
    return row.detail.isEmpty() ? row.event : row.event + QLatin1Char(' ') + row.detail;
}

std::vector<MovieChapter> movieChapters(const QList<CueLogEntry>& rows, double movieOffset)
{
    std::vector<MovieChapter> chapters;
    for (const auto& row : rows) {
        const double seconds = row.elapsed - movieOffset;
        chapters.push_back(
            {std::isfinite(seconds) ? std::max(0.0, seconds) : 0.0, chapterTitle(row)});
    }
    return chapters;
}

MarkerRate MarkerRate::of(double frameDuration)
{
    if (!std::isfinite(frameDuration) || frameDuration <= 0)
        return {};
    const double perSecond = 1 / frameDuration;
    if (!std::isfinite(perSecond) || perSecond < 0.5 || perSecond > 1000)
        return {};
    const double whole = std::round(perSecond);
    if (std::abs(perSecond - whole) < 0.005)
        return {int(whole), false};
    const double broadcast = std::round(perSecond * 1.001);
    if (std::abs(perSecond - broadcast / 1.001) < 0.005)
        return {int(broadcast), true};
    return {std::max(1, int(whole)), false};
}

std::int64_t markerFrame(double seconds, MarkerRate rate)
{
    if (!std::isfinite(seconds) || seconds <= 0)
        return 0;
    // The picture that started at or before the moment; a millionth of a frame absorbs the
    // rounding of times that fall on a frame's start.
    return std::int64_t(std::floor(std::min(seconds, 1e9) * rate.framesPerSecond() + 1e-6));
}

QString markerTimecode(std::int64_t frame, MarkerRate rate, int startHour)
{
    const std::int64_t base = std::max(1, rate.timebase);
    const std::int64_t seconds = frame / base;
    return QString::asprintf(
        "%02lld:%02lld:%02lld:%02lld", static_cast<long long>(startHour + seconds / 3600),
        static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60),
        static_cast<long long>(frame % base));
}

QByteArray resolveMarkerEDL(const QString& title, const std::vector<MovieChapter>& markers,
                            MarkerRate rate)
{
    QString text = QStringLiteral("TITLE: %1\nFCM: NON-DROP FRAME\n\n").arg(resolveText(title));
    int event = 0;
    for (const auto& marker : markers) {
        const std::int64_t frame = markerFrame(marker.seconds, rate);
        const QString in = markerTimecode(frame, rate, 1);
        const QString out = markerTimecode(frame + 1, rate, 1);
        text += QStringLiteral("%1  001      V     C        %2 %3 %2 %3  \n")
                    .arg(++event, 3, 10, QLatin1Char('0'))
                    .arg(in, out);
        text +=
            QStringLiteral(" |C:ResolveColorBlue |M:%1 |D:1\n\n").arg(resolveText(marker.title));
    }
    return text.toUtf8();
}

QByteArray premiereMarkerXML(const QString& moviePath, const std::vector<MovieChapter>& markers,
                             MarkerRate rate, double movieSeconds)
{
    const QFileInfo movie(moviePath);
    std::int64_t length = markerFrame(movieSeconds, rate);
    for (const auto& marker : markers)
        length = std::max(length, markerFrame(marker.seconds, rate) + 1);
    length = std::max<std::int64_t>(length, 1);
    const QString frames = QString::number(length);

    QByteArray bytes;
    QXmlStreamWriter xml(&bytes);
    xml.setAutoFormatting(true);
    xml.setAutoFormattingIndent(1);
    xml.writeStartDocument();
    xml.writeDTD(QStringLiteral("<!DOCTYPE xmeml>"));
    xml.writeStartElement(QStringLiteral("xmeml"));
    xml.writeAttribute(QStringLiteral("version"), QStringLiteral("4"));
    xml.writeStartElement(QStringLiteral("sequence"));
    xml.writeAttribute(QStringLiteral("id"), QStringLiteral("sequence-1"));
    xml.writeTextElement(QStringLiteral("name"), movie.completeBaseName());
    xml.writeTextElement(QStringLiteral("duration"), frames);
    writeRate(xml, rate);
    xml.writeStartElement(QStringLiteral("timecode"));
    writeRate(xml, rate);
    xml.writeTextElement(QStringLiteral("string"), markerTimecode(0, rate));
    xml.writeTextElement(QStringLiteral("frame"), QStringLiteral("0"));
    xml.writeTextElement(QStringLiteral("displayformat"), QStringLiteral("NDF"));
    xml.writeEndElement(); // timecode
    xml.writeStartElement(QStringLiteral("media"));
    xml.writeStartElement(QStringLiteral("video"));
    xml.writeStartElement(QStringLiteral("track"));
    xml.writeStartElement(QStringLiteral("clipitem"));
    xml.writeAttribute(QStringLiteral("id"), QStringLiteral("clipitem-1"));
    xml.writeTextElement(QStringLiteral("name"), movie.fileName());
    xml.writeTextElement(QStringLiteral("duration"), frames);
    writeRate(xml, rate);
    xml.writeTextElement(QStringLiteral("start"), QStringLiteral("0"));
    xml.writeTextElement(QStringLiteral("end"), frames);
    xml.writeTextElement(QStringLiteral("in"), QStringLiteral("0"));
    xml.writeTextElement(QStringLiteral("out"), frames);
    xml.writeStartElement(QStringLiteral("file"));
    xml.writeAttribute(QStringLiteral("id"), QStringLiteral("file-1"));
    xml.writeTextElement(QStringLiteral("name"), movie.fileName());
    xml.writeTextElement(QStringLiteral("pathurl"), QStringLiteral("file://localhost") +
                                                        QString::fromLatin1(QUrl::toPercentEncoding(
                                                            movie.absoluteFilePath(), "/")));
    writeRate(xml, rate);
    xml.writeTextElement(QStringLiteral("duration"), frames);
    xml.writeStartElement(QStringLiteral("media"));
    xml.writeEmptyElement(QStringLiteral("video"));
    xml.writeEndElement(); // media
    xml.writeEndElement(); // file
    xml.writeEndElement(); // clipitem
    xml.writeEndElement(); // track
    xml.writeEndElement(); // video
    xml.writeEndElement(); // media
    for (const auto& marker : markers) {
        xml.writeStartElement(QStringLiteral("marker"));
        xml.writeTextElement(QStringLiteral("name"), oneLine(marker.title));
        xml.writeTextElement(QStringLiteral("comment"), QString());
        xml.writeTextElement(QStringLiteral("in"),
                             QString::number(markerFrame(marker.seconds, rate)));
        xml.writeTextElement(QStringLiteral("out"), QStringLiteral("-1"));
        xml.writeEndElement();
    }
    xml.writeEndElement(); // sequence
    xml.writeEndElement(); // xmeml
    xml.writeEndDocument();
    return bytes;
}

QString resolveMarkersPath(const QString& moviePath)
{
    return besideMovie(moviePath, QStringLiteral("edl"));
}

QString premiereMarkersPath(const QString& moviePath)
{
    return besideMovie(moviePath, QStringLiteral("xml"));
}

std::optional<QString> writeCueLogFiles(const QString& moviePath, const QList<CueLogEntry>& rows,
                                        double movieOffset, double frameDuration,
                                        double movieSeconds)
{
    if (auto error = writeCueLog(cueLogPath(moviePath), rows))
        return error;
    const auto markers = movieChapters(rows, movieOffset);
    const MarkerRate rate = MarkerRate::of(frameDuration);
    if (auto error =
            writeWhole(resolveMarkersPath(moviePath),
                       resolveMarkerEDL(QFileInfo(moviePath).completeBaseName(), markers, rate)))
        return error;
    return writeWhole(premiereMarkersPath(moviePath),
                      premiereMarkerXML(moviePath, markers, rate, movieSeconds));
}

} // namespace orvane
