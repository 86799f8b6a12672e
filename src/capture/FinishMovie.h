#pragma once

#include "capture/MovieChapter.h"

#include <QString>

#include <atomic>
#include <vector>

namespace orvane {

// What became of a movie that was to be finished. Plain value.
struct FinishedMovie {
    enum class Result {
        finished,  // the file is now an ordinary movie with its chapters
        noRoom,    // the disk has no room for a second copy; the file is left as it was
        failed,    // reading or writing failed; `message` says why; the file is left as it was
        cancelled, // stopped on request; the file is left as it was
    };
    Result result = Result::failed;
    QString message;
    int chapters = 0; // the chapters written (those inside the movie)
};

// Turns the movie at `path` into an ordinary QuickTime movie with one index and `chapters`,
// under the same name: a fragmented movie that a recording left (stopped, or cut short by a
// crash, even with a torn last fragment) or an ordinary one that gets its chapters again.
// Packets are copied, never encoded again. The copy is made beside the file and renamed over
// it only once it is whole and on the disk, so a crash or a full disk at any moment leaves
// the original file as it was. Runs only when the disk has room for the copy. Any thread;
// takes as long as reading and writing the file once. `cancel`, when given and set, stops
// the copy early.
FinishedMovie finishMovie(const QString& path, std::vector<MovieChapter> chapters,
                          const std::atomic<bool>* cancel = nullptr);

// Makes what was written to `path` so far survive a power cut; with `folder`, its name too.
void syncFileToDisk(const QString& path, bool folder);

} // namespace orvane
