#pragma once

#include "base/Clock.h"
#include "overlay/OverlayContent.h"
#include "qlab/QLabCue.h"
#include "settings/OverlayLook.h"
#include "show/EosCue.h"
#include "show/EosCuePart.h"
#include "show/FadeClock.h"
#include "show/ShowField.h"
#include "show/ShowTime.h"

#include <QImage>
#include <QList>
#include <QString>

#include <optional>
#include <vector>

namespace orvane {

// Everything the overlay content is made from, as plain values that the application model
// copies out of the settings, the show data, the QLab client and the demo show whenever one
// of them changes. A plain value; any thread.
struct OverlaySources {
    // Settings.
    OverlayLook look; // layout, scale, opacity, show switches, watermark text and opacity
    bool isEnabled = true;
    QString cameraLabel = QStringLiteral("Stage Cam");

    // The application model.
    std::optional<WallTime> recordingStart;
    std::optional<QImage> watermarkImage;
    std::optional<ShowTime> demoShowTime; // while the demo show runs one

    // The show data.
    std::optional<QString> showName;
    std::optional<EosCue> activeCue;
    std::optional<EosCue> pendingCue;
    bool isHearingEos = false;
    QList<EosCuePart> activeParts;
    std::optional<FadeClock> activeCueClock;
    std::optional<QString> runningPart; // number of the part that runs
    QList<ShowField> fields;

    // The QLab client.
    bool isQLabConnected = false;
    std::vector<QLabCue> qlabRunningCues; // in the client's order
    std::optional<ShowTime> qlabShowTime; // from its timecode cue, when it has one

    // When the sources were gathered: the sample time of a QLab cue that reports neither an
    // elapsed time nor a start.
    WallTime gatheredAt{};

    friend bool operator==(const OverlaySources&, const OverlaySources&) = default;
};

// The content the overlay shows for `sources`: the settings copied, the show time chosen (the
// demo's, else QLab's timecode while connected), then show name, current cue with its part
// rows, next cue, fields and QLab cues, each only when its show switch is on. A pure
// function.
OverlayContent assembleOverlayContent(const OverlaySources& sources);

} // namespace orvane
