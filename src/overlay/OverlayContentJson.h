#pragma once

#include "base/Clock.h"
#include "overlay/OverlayContent.h"

#include <QDir>
#include <QJsonObject>

#include <optional>

namespace orvane {

// Reads an overlay content from a JSON object, for the picture tool and hand-made test
// contents. Every key is optional and keeps OverlayContent's default when absent; a key of
// the wrong type rejects the whole object. Times are given relative to `now`:
//
//   {"showName": "Hamlet", "scale": 1, "opacity": 0.7, "cameraLabel": "Stage Cam",
//    "isEnabled": true, "showsClock": true, "showsDate": false, "showsTimecode": true,
//    "layout": {"placements": ["status", {"x": 0.98, "y": 0.03, "anchorX": 1, "anchorY": 0}]},
//    "showTime": {"start": 3600, "elapsed": 12.5, "framesPerSecond": 25, "isPaused": false},
//    "recordingSeconds": 754,
//    "cue": {"number": "1/30", "label": "Ballad"}, "nextCue": {"number": "1/40", "label": ""},
//    "parts": [{"id": "P1", "tag": "P1", "label": "Intensity", "progress": 0.4,
//               "isRunning": true,
//               "fade": {"fade": 8, "reported": 0.4, "startedSecondsAgo": 3.2,
//                        "advancedSecondsAgo": 0.1}}],
//    "qlabCues": [{"id": "A1", "tag": "12", "label": "Rain",
//                  "running": {"elapsed": 4, "duration": 30, "isPaused": false}}],
//    "fields": [{"caption": "Sound", "value": "Q 30", "detail": ""}],
//    "watermarkText": "Rehearsal", "watermarkImage": "logo.png", "watermarkOpacity": 0.6}
//
// "watermarkImage" is a file name relative to `folder`; an image that cannot be read
// rejects the object.
std::optional<OverlayContent> overlayContentFromJson(const QJsonObject& json, WallTime now,
                                                     const QDir& folder);

} // namespace orvane
