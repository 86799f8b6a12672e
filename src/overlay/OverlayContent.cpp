#include "overlay/OverlayContent.h"

#include <QPainter>

namespace orvane {

namespace {

// A small stand-in logo for the busy show's watermark image: a ring and a bar, white on
// transparent, wider than high as most company logos are.
QImage busyShowLogo()
{
    QImage logo(480, 120, QImage::Format_ARGB32_Premultiplied);
    logo.fill(Qt::transparent);
    QPainter painter(&logo);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(Qt::white, 12));
    painter.setBrush(Qt::NoBrush);
    painter.drawEllipse(QRectF(10, 10, 100, 100));
    painter.setPen(Qt::NoPen);
    painter.setBrush(Qt::white);
    painter.drawEllipse(QRectF(45, 45, 30, 30));
    painter.drawRoundedRect(QRectF(140, 30, 320, 24), 12, 12);
    painter.setBrush(QColor(255, 255, 255, 150));
    painter.drawRoundedRect(QRectF(140, 70, 220, 20), 10, 10);
    return logo;
}

FadeClock fadeAt(double fade, double reported, WallTime startedAt, WallTime advancedAt)
{
    FadeClock clock;
    clock.fade = fade;
    clock.startedAt = startedAt;
    clock.reported = reported;
    clock.advancedAt = advancedAt;
    clock.hasAdvanced = reported > 0;
    return clock;
}

} // namespace

OverlayContent sampleOverlayContent(WallTime now)
{
    OverlayContent content;
    content.cue = OverlayCue{QStringLiteral("1/30"), QStringLiteral("Ballad")};
    content.nextCue = OverlayCue{QStringLiteral("1/40"), QStringLiteral("Ensemble Number")};

    OverlayPart part;
    part.id = QStringLiteral("sample");
    part.label = QStringLiteral("Ballad");
    part.progress = 0.6;
    content.parts.push_back(part);

    content.fields.push_back(
        OverlayItem{QStringLiteral("Sound"), QStringLiteral("Q 30 \u00b7 Ballad"), QString()});

    OverlayPart qlab;
    qlab.id = QStringLiteral("sample-qlab");
    qlab.label = QStringLiteral("Ballad Underscore");
    qlab.running = RunningTime{12, now, 45.0, false};
    content.qlabCues.push_back(qlab);

    content.watermarkText = QStringLiteral("Watermark");
    return content;
}

OverlayContent busyShowOverlayContent(WallTime now)
{
    OverlayContent content;
    content.showName = QStringLiteral("The Winter's Tale");
    content.cameraLabel = QStringLiteral("Stage Cam");
    content.showsDate = true;
    content.showTime = ShowTime{3600, 1234.56, now, false, 25};
    content.recordingStart = addSeconds(now, -(47 * 60 + 12.4));

    content.cue = OverlayCue{QStringLiteral("2/147.5"), QStringLiteral("Storm builds, lightning")};
    content.nextCue = OverlayCue{QStringLiteral("2/148"), QStringLiteral("Bear exit")};

    // A finished intensity fade, a colour fade under way, and a focus move held on the console.
    OverlayPart intensity;
    intensity.id = QStringLiteral("P1");
    intensity.tag = QStringLiteral("P1");
    intensity.label = QStringLiteral("Intensity");
    intensity.progress = 1;
    intensity.clock = fadeAt(3, 1, addSeconds(now, -5), addSeconds(now, -2));
    OverlayPart colour;
    colour.id = QStringLiteral("P2");
    colour.tag = QStringLiteral("P2");
    colour.label = QStringLiteral("Colour to storm blue");
    colour.progress = 0.45;
    colour.clock = fadeAt(8, 0.45, addSeconds(now, -3.6), addSeconds(now, -0.1));
    colour.isRunning = true;
    OverlayPart focus;
    focus.id = QStringLiteral("P3");
    focus.tag = QStringLiteral("P3");
    focus.label = QStringLiteral("Focus spots DS");
    focus.progress = 0.3;
    focus.clock = fadeAt(10, 0.3, addSeconds(now, -6), addSeconds(now, -3));
    content.parts = {intensity, colour, focus};

    OverlayPart thunder;
    thunder.id = QStringLiteral("8C3E6F2A-thunder");
    thunder.tag = QStringLiteral("104");
    thunder.label = QStringLiteral("Thunder roll");
    thunder.running = RunningTime{4.2, now, 11.5, false};
    OverlayPart rain;
    rain.id = QStringLiteral("1B77D0E4-rain");
    rain.tag = QStringLiteral("105");
    rain.label = QStringLiteral("Rain loop");
    rain.running = RunningTime{73.4, now, std::nullopt, false};
    OverlayPart video;
    video.id = QStringLiteral("F00DCAFE-video");
    video.tag = QStringLiteral("V12");
    video.label = QStringLiteral("Projection: sea");
    video.running = RunningTime{21, now, 60.0, true};
    content.qlabCues = {thunder, rain, video};

    content.fields = {
        OverlayItem{QStringLiteral("Sound"), QStringLiteral("Q 30 \u00b7 Storm"), QString()},
        OverlayItem{QStringLiteral("Fly"), QStringLiteral("Bar 14 in"), QStringLiteral("Cloth")},
        OverlayItem{QStringLiteral("Stage manager"), QStringLiteral("Standby LX 148"), QString()},
        OverlayItem{QStringLiteral("Act"), QStringLiteral("3, scene 3"), QString()},
    };

    content.watermarkText = QStringLiteral("Rehearsal \u2014 not for broadcast");
    content.watermarkImage = busyShowLogo();
    return content;
}

} // namespace orvane
