#pragma once

#include <QString>

namespace orvane {

// One row of a recording's cue log: what happened, when into the recording, and the show's
// timecode at that moment. Plain value; any thread.
struct CueLogEntry {
    double elapsed = 0; // seconds since the recording started
    QString timecode;   // the show time as text, empty when there is none
    QString event;      // "Marker", or "Cue " and the cue's number
    QString detail;     // the marker's text or the cue's label; may be empty
    friend bool operator==(const CueLogEntry&, const CueLogEntry&) = default;
};

} // namespace orvane
