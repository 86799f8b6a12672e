#include "MovieProbe.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtEndian>

const ProbedStream* ProbedMovie::stream(const QString& type) const
{
    for (const auto& s : streams)
        if (s.type == type)
            return &s;
    return nullptr;
}

int ProbedMovie::count(const QString& type) const
{
    return int(std::count_if(streams.begin(), streams.end(),
                             [&](const ProbedStream& s) { return s.type == type; }));
}

namespace {

double rational(const QString& text)
{
    const auto parts = text.split(QLatin1Char('/'));
    if (parts.size() != 2 || parts[1].toDouble() == 0)
        return 0;
    return parts[0].toDouble() / parts[1].toDouble();
}

} // namespace

std::optional<ProbedMovie> probeMovie(const QString& path)
{
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-count_frames"),
                   QStringLiteral("-show_streams"), QStringLiteral("-show_format"),
                   QStringLiteral("-show_chapters"), QStringLiteral("-of"), QStringLiteral("json"),
                   path});
    if (!ffprobe.waitForFinished(60000) || ffprobe.exitCode() != 0)
        return std::nullopt;
    const auto json = QJsonDocument::fromJson(ffprobe.readAllStandardOutput()).object();
    auto number = [](const QJsonObject& o, const char* key) {
        return o.value(QLatin1String(key)).toString().toDouble();
    };
    ProbedMovie movie;
    const auto format = json.value(QStringLiteral("format")).toObject();
    movie.formatName = format.value(QStringLiteral("format_name")).toString();
    movie.duration = number(format, "duration");
    for (const auto& value : json.value(QStringLiteral("streams")).toArray()) {
        const auto s = value.toObject();
        movie.streams.push_back(
            {s.value(QStringLiteral("codec_type")).toString(),
             s.value(QStringLiteral("codec_name")).toString(),
             s.value(QStringLiteral("profile")).toString(),
             s.value(QStringLiteral("width")).toInt(), s.value(QStringLiteral("height")).toInt(),
             rational(s.value(QStringLiteral("r_frame_rate")).toString()), number(s, "duration"),
             int(number(s, "nb_read_frames")), int(number(s, "sample_rate")),
             s.value(QStringLiteral("channels")).toInt()});
    }
    for (const auto& value : json.value(QStringLiteral("chapters")).toArray()) {
        const auto c = value.toObject();
        movie.chapters.push_back(
            {number(c, "start_time"), number(c, "end_time"),
             c.value(QStringLiteral("tags")).toObject().value(QStringLiteral("title")).toString()});
    }
    return movie;
}

QStringList topLevelBoxes(const QString& path)
{
    QStringList boxes;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return boxes;
    qint64 at = 0;
    const qint64 size = file.size();
    while (at + 8 <= size) {
        file.seek(at);
        const QByteArray header = file.read(16);
        quint64 length = qFromBigEndian<quint32>(header.constData());
        boxes << QString::fromLatin1(header.mid(4, 4));
        if (length == 1 && header.size() == 16)
            length = qFromBigEndian<quint64>(header.constData() + 8);
        else if (length == 0)
            break; // to the end of the file
        if (length < 8)
            break;
        at += qint64(length);
    }
    return boxes;
}

QByteArray decodePicture(const QString& path, int index, int width, int height)
{
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path,
                  QStringLiteral("-vf"), QStringLiteral("select=eq(n\\,%1)").arg(index),
                  QStringLiteral("-frames:v"), QStringLiteral("1"), QStringLiteral("-f"),
                  QStringLiteral("rawvideo"), QStringLiteral("-pix_fmt"), QStringLiteral("bgra"),
                  QStringLiteral("-")});
    if (!ffmpeg.waitForFinished(60000) || ffmpeg.exitCode() != 0)
        return {};
    const QByteArray picture = ffmpeg.readAllStandardOutput();
    return picture.size() == qsizetype(width) * height * 4 ? picture : QByteArray();
}
