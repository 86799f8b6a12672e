#pragma once

#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

// What ffprobe says about a movie file, for tests that check recordings with a real tool.
struct ProbedStream {
    QString type; // "video", "audio"
    QString codec;
    QString profile;
    int width = 0;
    int height = 0;
    double frameRate = 0;
    double duration = 0;
    int frameCount = 0;
    int sampleRate = 0;
    int channels = 0;
};

struct ProbedChapter {
    double start = 0;
    double end = 0;
    QString title;
};

struct ProbedMovie {
    QString formatName;
    double duration = 0;
    std::vector<ProbedStream> streams;
    std::vector<ProbedChapter> chapters;

    const ProbedStream* stream(const QString& type) const;
    int count(const QString& type) const;
};

// Runs ffprobe on `path`; none when it cannot read the file.
std::optional<ProbedMovie> probeMovie(const QString& path);
// The types of the top-level boxes of a QuickTime file, in order ("ftyp", "moov", "moof"...).
QStringList topLevelBoxes(const QString& path);
// Decodes picture number `index` of the movie's video as 32-bit BGRA at its own size.
QByteArray decodePicture(const QString& path, int index, int width, int height);
