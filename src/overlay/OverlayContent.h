#pragma once

#include "base/Clock.h"
#include "overlay/OverlayPart.h"
#include "settings/OverlayLayout.h"
#include "show/ShowTime.h"

#include <QImage>
#include <QString>

#include <optional>
#include <vector>

namespace orvane {

// A lighting cue as the overlay shows it.
struct OverlayCue {
    QString number;
    QString label;
    friend bool operator==(const OverlayCue&, const OverlayCue&) = default;
};

// One custom field row.
struct OverlayItem {
    QString caption;
    QString value;
    QString detail;
    friend bool operator==(const OverlayItem&, const OverlayItem&) = default;
};

// Everything the overlay shows on one frame, already filtered by the operator's show toggles,
// and the look to show it with. Time-dependent values are clocks, read when a frame is drawn,
// so a new content is needed only when something really changed. A plain value; any thread.
struct OverlayContent {
    OverlayLayout layout = OverlayLayout::defaultLayout();
    bool isEnabled = true;
    double scale = 1.0;
    double opacity = 0.7; // of the panel backgrounds
    QString cameraLabel = QStringLiteral("Stage Cam");
    bool showsClock = true;
    bool showsDate = false;
    bool showsTimecode = true;
    std::optional<ShowTime> showTime;
    std::optional<WallTime> recordingStart; // set while a recording runs
    std::optional<QString> showName;
    std::optional<OverlayCue> cue;
    std::optional<OverlayCue> nextCue;
    std::vector<OverlayPart> parts;    // fades of the current cue
    std::vector<OverlayPart> qlabCues; // running QLab cues
    std::vector<OverlayItem> fields;
    QString watermarkText;
    std::optional<QImage> watermarkImage;
    double watermarkOpacity = 0.6;

    friend bool operator==(const OverlayContent&, const OverlayContent&) = default;
};

// What the layout editor previews when no show runs: cue 1/30 "Ballad" fading at 60 %, next
// cue 1/40, one field, one QLab cue 12 s into 45 s at `now`, and the watermark "Watermark".
OverlayContent sampleOverlayContent(WallTime now);

// A busy moment of a show, for reference pictures and benchmarks: show name, timecode,
// recording, a cue with three parts (one held on the console), three QLab cues (one paused,
// one of unknown length), four fields, and a watermark with text and image.
OverlayContent busyShowOverlayContent(WallTime now);

} // namespace orvane
