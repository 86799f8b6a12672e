#pragma once

#include "app/CueLogEntry.h"
#include "capture/MovieChapter.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <cstdint>
#include <optional>
#include <vector>

namespace orvane {

// The cue log as an editor sees it: each row is a chapter of every movie and a marker in two
// lists an editing program imports (an EDL of markers for DaVinci Resolve, a Final Cut Pro 7
// XML sequence for Premiere Pro), at the row's time in that movie. Any thread.

// "Cue 47 Storm", "Marker Interval": the row's event and its detail, when it has one.
QString chapterTitle(const CueLogEntry& row);
// The rows as chapters of a movie whose first frame came `movieOffset` seconds after the
// recording started: a row before the first frame lies at its start.
std::vector<MovieChapter> movieChapters(const QList<CueLogEntry>& rows, double movieOffset);

// A movie's frame rate as editors count it: `timebase` frames to a second of timecode, and
// with `ntsc` the broadcast rate timebase × 1000/1001 (29.97 counts 30 frames a second of
// non-drop-frame timecode).
struct MarkerRate {
    int timebase = 30;
    bool ntsc = false;
    // From the camera's frame duration in seconds; 30 when it is not a usable one.
    static MarkerRate of(double frameDuration);
    double framesPerSecond() const { return ntsc ? timebase * 1000.0 / 1001.0 : timebase; }
    friend bool operator==(const MarkerRate&, const MarkerRate&) = default;
};
// The frame on screen `seconds` into the movie (never negative).
std::int64_t markerFrame(double seconds, MarkerRate rate);
// Frame `frame` as non-drop-frame timecode "HH:MM:SS:FF", counted from `startHour`.
QString markerTimecode(std::int64_t frame, MarkerRate rate, int startHour = 0);

// The EDL that Resolve's "Timeline Markers from EDL" reads: one blue marker of one frame per
// chapter, on a timeline that starts at 01:00:00:00 as Resolve's do.
QByteArray resolveMarkerEDL(const QString& title, const std::vector<MovieChapter>& markers,
                            MarkerRate rate);
// A Final Cut Pro 7 XML document that Premiere Pro imports as a sequence holding the movie at
// `moviePath`, `movieSeconds` long, with a sequence marker per chapter.
QByteArray premiereMarkerXML(const QString& moviePath, const std::vector<MovieChapter>& markers,
                             MarkerRate rate, double movieSeconds);

QString resolveMarkersPath(const QString& moviePath);  // the movie's name with ".edl"
QString premiereMarkersPath(const QString& moviePath); // the movie's name with ".xml"

// Writes the cue log and the two marker lists beside the movie, each in one piece; answers
// the system's description of the first failure, or nothing.
std::optional<QString> writeCueLogFiles(const QString& moviePath, const QList<CueLogEntry>& rows,
                                        double movieOffset, double frameDuration,
                                        double movieSeconds);

} // namespace orvane
