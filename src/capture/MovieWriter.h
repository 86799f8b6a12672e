#pragma once

#include "capture/MovieCodec.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>

namespace orvane {

struct Frame;

// One QuickTime movie being written with FFmpeg: a video track in the chosen codec and, when
// asked, AAC sound at 48 kHz stereo and 256 kbit/s. The movie is fragmented, a fragment about
// every second whatever the codec, each flushed to the file at once and synced to the disk on
// a thread of its own, so a crash or a power cut leaves a file that plays up to the last
// fragment and a slow disk never holds up the encoder. finish() closes it as it is, playable
// at once; finishMovie() makes it an ordinary movie later. Used on one thread at a time (the
// recorder's).
class MovieWriter {
public:
    struct Video {
        MovieCodec codec = MovieCodec::h264;
        int width = 0;
        int height = 0;
        double frameDuration = 1.0 / 30;
    };

    // Makes the data written to an open file durable; syncData() (fdatasync) unless a test or
    // a benchmark slows it down.
    using SyncStep = std::function<void(int fd)>;
    static void syncData(int fd);

    // Opens `path` and writes the movie's header. On failure returns nullptr and sets `error`
    // to the message for the user.
    static std::unique_ptr<MovieWriter> create(const QString& path, const Video& video,
                                               bool includesAudio, QString& error,
                                               SyncStep sync = {});
    ~MovieWriter();
    MovieWriter(const MovieWriter&) = delete;
    MovieWriter& operator=(const MovieWriter&) = delete;

    bool hasAudio() const;
    // Encodes `frame` as picture number `position` counted in frame durations from the
    // movie's start, scaled to the movie's size if it has another. Positions only grow.
    // H.264 and HEVC take the frame's planes as they are; the frame is let go of as soon as
    // the encoder has copied them in.
    bool writeVideo(std::shared_ptr<const Frame> frame, std::int64_t position);
    // Encodes interleaved stereo samples that follow the previous ones without a gap.
    bool writeAudio(const float* samples, int frameCount);
    // Drains the encoders, closes the fragmented movie and waits for it to be on the disk.
    // Returns false on failure.
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
