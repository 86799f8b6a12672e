#pragma once

// What ffprobe and ffmpeg make of a movie file, for the tests that check recordings with the
// real tools.

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtEndian>

#include <optional>
#include <vector>

struct ProbedStream {
    QString type, codec, profile; // type: "video" or "audio"
    int width = 0, height = 0;
    double frameRate = 0, duration = 0;
    int frameCount = 0, sampleRate = 0, channels = 0;
};

struct ProbedChapter {
    double start = 0, end = 0;
    QString title;
};

struct ProbedMovie {
    QString formatName;
    double duration = 0;
    std::vector<ProbedStream> streams;
    std::vector<ProbedChapter> chapters;

    const ProbedStream* stream(const QString& type) const
    {
        for (const auto& s : streams)
            if (s.type == type)
                return &s;
        return nullptr;
    }
    int count(const QString& type) const
    {
        return int(std::count_if(streams.begin(), streams.end(),
                                 [&](const ProbedStream& s) { return s.type == type; }));
    }
};

// The standard output of a tool that succeeded.
inline std::optional<QByteArray> runTool(const QString& program, const QStringList& arguments)
{
    QProcess tool;
    tool.start(program, arguments);
    if (!tool.waitForFinished(60000) || tool.exitCode() != 0)
        return std::nullopt;
    return tool.readAllStandardOutput();
}

// Runs ffprobe on `path`; none when it cannot read the file.
inline std::optional<ProbedMovie> probeMovie(const QString& path)
{
    const auto output = runTool("ffprobe", {"-v", "error", "-count_frames", "-show_streams",
                                            "-show_format", "-show_chapters", "-of", "json", path});
    if (!output)
        return std::nullopt;
    const QJsonObject json = QJsonDocument::fromJson(*output).object();
    const auto text = [](const QJsonValue& o, const char* key) { return o[key].toString(); };
    const auto number = [&](const QJsonValue& o, const char* key) {
        return text(o, key).toDouble();
    };
    ProbedMovie movie{text(json["format"], "format_name"), number(json["format"], "duration")};
    for (const QJsonValue s : json["streams"].toArray()) {
        const QStringList rate = text(s, "r_frame_rate").split('/');
        movie.streams.push_back({text(s, "codec_type"), text(s, "codec_name"), text(s, "profile"),
                                 s["width"].toInt(), s["height"].toInt(),
                                 rate.value(0).toDouble() / rate.value(1).toDouble(),
                                 number(s, "duration"), int(number(s, "nb_read_frames")),
                                 int(number(s, "sample_rate")), s["channels"].toInt()});
    }
    for (const QJsonValue c : json["chapters"].toArray())
        movie.chapters.push_back(
            {number(c, "start_time"), number(c, "end_time"), c["tags"]["title"].toString()});
    return movie;
}

// The types of the top-level boxes of a QuickTime file, in order ("ftyp", "moov", "moof"...).
inline QStringList topLevelBoxes(const QString& path)
{
    QStringList boxes;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return boxes;
    for (qint64 at = 0; at + 8 <= file.size();) {
        file.seek(at);
        const QByteArray header = file.read(16);
        quint64 length = qFromBigEndian<quint32>(header.constData());
        boxes << QString::fromLatin1(header.mid(4, 4));
        if (length == 1 && header.size() == 16)
            length = qFromBigEndian<quint64>(header.constData() + 8);
        if (length < 8) // 0: to the end of the file
            break;
        at += qint64(length);
    }
    return boxes;
}
