#pragma once

#include "capture/MovieCodec.h"

#include <QString>

#include <cstdint>
#include <memory>

namespace orvane {

struct Frame;

// One QuickTime movie being written with FFmpeg: a video track in the chosen codec and, when
// asked, AAC sound at 48 kHz stereo and 256 kbit/s. While it is written the movie is
// fragmented, with a fragment at a key frame every second, so a crash or a power cut leaves a
// file that plays up to the last fragment; finish() rewrites it as an ordinary movie with one
// index. Used on one thread at a time (the recorder's).
class MovieWriter {
public:
    struct Video {
        MovieCodec codec = MovieCodec::h264;
        int width = 0;
        int height = 0;
        double frameDuration = 1.0 / 30;
    };

    // Opens `path` and writes the movie's header. On failure returns nullptr and sets `error`
    // to the message for the user.
    static std::unique_ptr<MovieWriter> create(const QString& path, const Video& video,
                                               bool includesAudio, QString& error);
    ~MovieWriter();
    MovieWriter(const MovieWriter&) = delete;
    MovieWriter& operator=(const MovieWriter&) = delete;

    bool hasAudio() const;
    // Encodes `frame` as picture number `position` counted in frame durations from the
    // movie's start. Positions only grow.
    bool writeVideo(const Frame& frame, std::int64_t position);
    // Encodes interleaved stereo samples that follow the previous ones without a gap.
    bool writeAudio(const float* samples, int frameCount);
    // Drains the encoders and closes the movie as an ordinary one. Returns false on failure.
    bool finish();

    // The last failure in words, for the user.
    const QString& error() const { return error_; }

    // The name of the encoder that each codec uses and the options it runs with.
    static const char* encoderName(MovieCodec codec);

private:
    struct State;
    explicit MovieWriter(std::unique_ptr<State> state);
    bool fail(int averror);

    std::unique_ptr<State> state_;
    QString error_;
};

} // namespace orvane
