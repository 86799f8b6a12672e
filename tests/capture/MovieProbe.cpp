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
                   QStringLiteral("-of"), QStringLiteral("json"), path});
    if (!ffprobe.waitForFinished(60000) || ffprobe.exitCode() != 0)
        return std::nullopt;
    const auto json = QJsonDocument::fromJson(ffprobe.readAllStandardOutput()).object();
    ProbedMovie movie;
    const auto format = json.value(QStringLiteral("format")).toObject();
    movie.formatName = format.value(QStringLiteral("format_name")).toString();
    movie.duration = format.value(QStringLiteral("duration")).toString().toDouble();
    for (const auto& value : json.value(QStringLiteral("streams")).toArray()) {
        const auto s = value.toObject();
        ProbedStream stream;
        stream.type = s.value(QStringLiteral("codec_type")).toString();
        stream.codec = s.value(QStringLiteral("codec_name")).toString();
        stream.profile = s.value(QStringLiteral("profile")).toString();
        stream.width = s.value(QStringLiteral("width")).toInt();
        stream.height = s.value(QStringLiteral("height")).toInt();
        stream.frameRate = rational(s.value(QStringLiteral("r_frame_rate")).toString());
        stream.duration = s.value(QStringLiteral("duration")).toString().toDouble();
        stream.frameCount = s.value(QStringLiteral("nb_read_frames")).toString().toInt();
        stream.sampleRate = s.value(QStringLiteral("sample_rate")).toString().toInt();
        stream.channels = s.value(QStringLiteral("channels")).toInt();
        stream.bitRate = s.value(QStringLiteral("bit_rate")).toString().toDouble();
        movie.streams.push_back(stream);
    }
    return movie;
}

std::optional<std::vector<ProbedChapter>> probeChapters(const QString& path)
{
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_chapters"),
                   QStringLiteral("-of"), QStringLiteral("json"), path});
    if (!ffprobe.waitForFinished(60000) || ffprobe.exitCode() != 0)
        return std::nullopt;
    const auto json = QJsonDocument::fromJson(ffprobe.readAllStandardOutput()).object();
    std::vector<ProbedChapter> chapters;
    for (const auto& value : json.value(QStringLiteral("chapters")).toArray()) {
        const auto c = value.toObject();
        chapters.push_back(
            {c.value(QStringLiteral("start_time")).toString().toDouble(),
             c.value(QStringLiteral("end_time")).toString().toDouble(),
             c.value(QStringLiteral("tags")).toObject().value(QStringLiteral("title")).toString()});
    }
    return chapters;
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
