#include "app/OverlayAssembly.h"

namespace orvane {

namespace {

// The em dash that stands for "the console is heard but no cue has run".
const QString kNoCueNumber = QStringLiteral("\u2014");

std::vector<OverlayPart> partRows(const OverlaySources& sources, const EosCue& cue)
{
    std::vector<OverlayPart> rows;
    if (sources.activeParts.isEmpty()) {
        OverlayPart row;
        row.id = QStringLiteral("cue");
        row.label = cue.label;
        row.progress = cue.percent ? *cue.percent / 100.0 : 1.0;
        row.clock = sources.activeCueClock;
        row.isRunning = true;
        rows.push_back(row);
        return rows;
    }
    for (const EosCuePart& part : sources.activeParts) {
        OverlayPart row;
        row.id = QStringLiteral("P") + part.number;
        row.tag = QStringLiteral("P") + part.number;
        row.label = part.label;
        row.progress = part.percent / 100.0;
        row.clock = part.clock;
        row.isRunning = sources.runningPart && *sources.runningPart == part.number;
        rows.push_back(row);
    }
    return rows;
}

OverlayPart qlabRow(const QLabCue& cue, WallTime gatheredAt)
{
    OverlayPart row;
    row.id = cue.id;
    row.tag = cue.number;
    row.label = cue.displayName();
    RunningTime running;
    running.elapsed = cue.actionElapsed.value_or(0);
    running.sampledAt = cue.sampledAt ? *cue.sampledAt : cue.startedAt.value_or(gatheredAt);
    running.duration = cue.duration;
    running.isPaused = cue.isPaused;
    row.running = running;
    return row;
}

} // namespace

OverlayContent assembleOverlayContent(const OverlaySources& sources)
{
    const OverlayLook& look = sources.look;
    OverlayContent content;
    content.layout = look.layout;
    content.isEnabled = sources.isEnabled;
    content.scale = look.drawnScale();
    content.opacity = look.opacity;
    content.cameraLabel = sources.cameraLabel;
    content.showsTimecode = look.showsTimecode;
    content.showsDate = look.showsDate;
    content.showsClock = look.showsClock;
    content.watermarkText = look.watermarkText;
    content.watermarkOpacity = look.watermarkOpacity;
    content.recordingStart = sources.recordingStart;
    content.watermarkImage = sources.watermarkImage;

    // Set whatever the timecode switch says; the renderer applies it.
    if (sources.demoShowTime)
        content.showTime = sources.demoShowTime;
    else if (sources.isQLabConnected)
        content.showTime = sources.qlabShowTime;

    if (look.showsShowName && sources.showName && !sources.showName->isEmpty())
        content.showName = sources.showName;

    if (look.showsCue) {
        if (sources.activeCue) {
            content.cue = OverlayCue{sources.activeCue->token(), sources.activeCue->label};
            content.parts = partRows(sources, *sources.activeCue);
        } else if (sources.isHearingEos) {
            content.cue = OverlayCue{kNoCueNumber, QString()};
        }
    }

    if (look.showsNextCue && sources.pendingCue)
        content.nextCue = OverlayCue{sources.pendingCue->token(), sources.pendingCue->label};

    if (look.showsFields) {
        for (const ShowField& field : sources.fields)
            content.fields.push_back(OverlayItem{field.label, field.value, QString()});
    }

    if (look.showsQLabCues && sources.isQLabConnected) {
        for (const QLabCue& cue : sources.qlabRunningCues)
            content.qlabCues.push_back(qlabRow(cue, sources.gatheredAt));
    }
    return content;
}

} // namespace orvane
