#pragma once

#include <QString>

namespace orvane {

// A named point on a movie's time line, in seconds from its first frame: a cue that ran
// during the recording. Plain value.
struct MovieChapter {
    double seconds = 0;
    QString title;
    friend bool operator==(const MovieChapter&, const MovieChapter&) = default;
};

} // namespace orvane
