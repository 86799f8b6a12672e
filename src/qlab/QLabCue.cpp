#include "qlab/QLabCue.h"

#include "qlab/QLabJson.h"

#include <QJsonArray>
#include <QRegularExpression>

#include <algorithm>

namespace orvane {

namespace {

std::optional<QString> startFromDisplayName(const QString& displayName)
{
    static const QRegularExpression pattern(QStringLiteral(R"(\d{1,2}:\d{2}:\d{2}[:;]\d{2})"));
    const auto match = pattern.match(displayName);
    if (!match.hasMatch())
        return std::nullopt;
    return match.captured(0);
}

} // namespace

std::optional<QLabCue> QLabCue::decode(const QJsonObject& object, WallTime now)
{
    const auto id = qlabjson::text(object.value(u"uniqueID"));
    if (!id || id->isEmpty())
        return std::nullopt;
    QLabCue cue;
    cue.id = *id;
    cue.number = qlabjson::text(object.value(u"number")).value_or(QString());
    cue.name = qlabjson::text(object.value(u"name")).value_or(QString());
    cue.type = qlabjson::text(object.value(u"type")).value_or(QString());
    cue.isPaused = qlabjson::boolean(object.value(u"isPaused")).value_or(false);
    cue.actionElapsed = qlabjson::number(object.value(u"actionElapsed"));
    if (cue.actionElapsed)
        cue.sampledAt = now;
    cue.duration = object.contains(u"currentDuration")
                       ? qlabjson::number(object.value(u"currentDuration"))
                       : qlabjson::number(object.value(u"duration"));
    const auto parent = qlabjson::text(object.value(u"parent"));
    if (parent && !parent->isEmpty())
        cue.parentID = parent;
    cue.timecodeStart = qlabjson::text(object.value(u"startTime"));
    if (!cue.timecodeStart && cue.isTimecode()) {
        if (const auto displayName = qlabjson::text(object.value(u"displayName")))
            cue.timecodeStart = startFromDisplayName(*displayName);
    }
    cue.timecodeRateIndex = qlabjson::wholeNumber(object.value(u"framerate"));
    cue.timecodeOutputType = qlabjson::wholeNumber(object.value(u"outputType"));
    return cue;
}

std::optional<std::vector<QLabCue>> QLabCue::decodeList(const QJsonValue& data, WallTime now)
{
    if (!data.isArray())
        return std::nullopt;
    std::vector<QLabCue> cues;
    for (const QJsonValue& entry : data.toArray()) {
        if (auto cue = decode(entry.toObject(), now))
            cues.push_back(std::move(*cue));
    }
    return cues;
}

bool QLabCue::isContainerType(QStringView type)
{
    return type == u"Cue List" || type == u"Cart";
}

double QLabCue::timecodeFramesPerSecond(std::optional<std::int64_t> rateIndex)
{
    if (!rateIndex)
        return 25;
    switch (*rateIndex) {
    case 0:
        return 24;
    case 1:
        return 25;
    case 2: // drop frame
    case 3:
        return 30;
    case 4:
        return 24000.0 / 1001.0;
    case 5:
        return 24.975;
    case 6: // drop frame
    case 7:
        return 30000.0 / 1001.0;
    }
    return 25;
}

bool QLabCue::isTimecode() const
{
    return type.contains(u"timecode", Qt::CaseInsensitive);
}

std::optional<ShowTime> QLabCue::runningTimecode(WallTime now) const
{
    if (!isTimecode() || !timecodeStart)
        return std::nullopt;
    const double framesPerSecond = timecodeFramesPerSecond(timecodeRateIndex);
    const auto start = ShowTime::parse(*timecodeStart, framesPerSecond);
    if (!start)
        return std::nullopt;
    double elapsed = 0;
    if (actionElapsed) {
        elapsed = *actionElapsed;
        if (sampledAt && !isPaused)
            elapsed += std::max(0.0, secondsBetween(*sampledAt, now));
    } else if (startedAt) {
        elapsed = std::max(0.0, secondsBetween(*startedAt, now));
    }
    ShowTime time;
    time.start = *start;
    time.elapsed = elapsed;
    time.sampledAt = now;
    time.isPaused = isPaused;
    time.framesPerSecond = framesPerSecond;
    return time;
}

QString QLabCue::displayName() const
{
    const QString own = name.isEmpty() ? number : name;
    if (!parentName || parentName->isEmpty())
        return own;
    return *parentName + QStringLiteral(" › ") + own;
}

} // namespace orvane
