#include "overlay/OverlayContentJson.h"

#include <QJsonArray>
#include <QJsonValue>

namespace orvane {

namespace {

// Reads optional keys of one object; the first key of a wrong type marks the reader failed.
class Reader {
public:
    explicit Reader(const QJsonObject& object)
        : object_(object)
    {
    }

    bool ok() const { return ok_; }

    void read(const char* key, double& into)
    {
        const QJsonValue value = object_.value(QLatin1String(key));
        if (value.isUndefined())
            return;
        if (!value.isDouble())
            ok_ = false;
        else
            into = value.toDouble();
    }
    void read(const char* key, bool& into)
    {
        const QJsonValue value = object_.value(QLatin1String(key));
        if (value.isUndefined())
            return;
        if (!value.isBool())
            ok_ = false;
        else
            into = value.toBool();
    }
    void read(const char* key, QString& into)
    {
        const QJsonValue value = object_.value(QLatin1String(key));
        if (value.isUndefined())
            return;
        if (!value.isString())
            ok_ = false;
        else
            into = value.toString();
    }
    // An object or array value, or nothing when absent; the wrong kind fails.
    std::optional<QJsonObject> object(const char* key)
    {
        const QJsonValue value = object_.value(QLatin1String(key));
        if (value.isUndefined())
            return std::nullopt;
        if (!value.isObject()) {
            ok_ = false;
            return std::nullopt;
        }
        return value.toObject();
    }
    std::optional<QJsonArray> array(const char* key)
    {
        const QJsonValue value = object_.value(QLatin1String(key));
        if (value.isUndefined())
            return std::nullopt;
        if (!value.isArray()) {
            ok_ = false;
            return std::nullopt;
        }
        return value.toArray();
    }
    void fail() { ok_ = false; }

private:
    const QJsonObject& object_;
    bool ok_ = true;
};

std::optional<OverlayCue> cueFrom(const QJsonObject& json)
{
    OverlayCue cue;
    Reader reader(json);
    reader.read("number", cue.number);
    reader.read("label", cue.label);
    return reader.ok() ? std::optional(cue) : std::nullopt;
}

std::optional<OverlayPart> partFrom(const QJsonValue& value, WallTime now)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject json = value.toObject();
    OverlayPart part;
    Reader reader(json);
    reader.read("id", part.id);
    reader.read("tag", part.tag);
    reader.read("label", part.label);
    reader.read("progress", part.progress);
    reader.read("isRunning", part.isRunning);
    if (auto fade = reader.object("fade")) {
        FadeClock clock;
        double startedAgo = 0;
        double advancedAgo = 0;
        Reader fadeReader(*fade);
        fadeReader.read("fade", clock.fade);
        fadeReader.read("reported", clock.reported);
        fadeReader.read("startedSecondsAgo", startedAgo);
        fadeReader.read("advancedSecondsAgo", advancedAgo);
        clock.hasAdvanced = clock.reported > 0;
        fadeReader.read("hasAdvanced", clock.hasAdvanced);
        if (!fadeReader.ok() || !(clock.fade > 0))
            reader.fail();
        clock.startedAt = addSeconds(now, -startedAgo);
        clock.advancedAt = addSeconds(now, -advancedAgo);
        part.clock = clock;
    }
    if (auto running = reader.object("running")) {
        RunningTime time;
        time.sampledAt = now;
        Reader runningReader(*running);
        runningReader.read("elapsed", time.elapsed);
        runningReader.read("isPaused", time.isPaused);
        double duration = -1;
        runningReader.read("duration", duration);
        if (running->contains(QLatin1String("duration")))
            time.duration = duration;
        if (!runningReader.ok())
            reader.fail();
        part.running = time;
    }
    return reader.ok() ? std::optional(part) : std::nullopt;
}

bool readParts(Reader& reader, const char* key, WallTime now, std::vector<OverlayPart>& into)
{
    auto array = reader.array(key);
    if (!array)
        return reader.ok();
    for (const QJsonValue& value : *array) {
        auto part = partFrom(value, now);
        if (!part)
            return false;
        into.push_back(*part);
    }
    return true;
}

} // namespace

std::optional<OverlayContent> overlayContentFromJson(const QJsonObject& json, WallTime now,
                                                     const QDir& folder)
{
    OverlayContent content;
    Reader reader(json);
    if (json.contains(QLatin1String("layout"))) {
        auto layout = OverlayLayout::fromJson(json.value(QLatin1String("layout")));
        if (!layout)
            return std::nullopt;
        content.layout = *layout;
    }
    reader.read("isEnabled", content.isEnabled);
    reader.read("scale", content.scale);
    reader.read("opacity", content.opacity);
    reader.read("cameraLabel", content.cameraLabel);
    reader.read("showsClock", content.showsClock);
    reader.read("showsDate", content.showsDate);
    reader.read("showsTimecode", content.showsTimecode);
    if (auto showTime = reader.object("showTime")) {
        ShowTime time;
        time.sampledAt = now;
        Reader timeReader(*showTime);
        timeReader.read("start", time.start);
        timeReader.read("elapsed", time.elapsed);
        timeReader.read("framesPerSecond", time.framesPerSecond);
        timeReader.read("isPaused", time.isPaused);
        if (!timeReader.ok())
            return std::nullopt;
        content.showTime = time;
    }
    if (json.contains(QLatin1String("recordingSeconds"))) {
        double seconds = 0;
        reader.read("recordingSeconds", seconds);
        content.recordingStart = addSeconds(now, -seconds);
    }
    if (json.contains(QLatin1String("showName"))) {
        QString name;
        reader.read("showName", name);
        content.showName = name;
    }
    for (auto [key, into] :
         {std::pair{"cue", &content.cue}, std::pair{"nextCue", &content.nextCue}}) {
        if (auto cue = reader.object(key)) {
            *into = cueFrom(*cue);
            if (!*into)
                return std::nullopt;
        }
    }
    if (!readParts(reader, "parts", now, content.parts) ||
        !readParts(reader, "qlabCues", now, content.qlabCues))
        return std::nullopt;
    if (auto fields = reader.array("fields")) {
        for (const QJsonValue& value : *fields) {
            if (!value.isObject())
                return std::nullopt;
            const QJsonObject object = value.toObject();
            OverlayItem item;
            Reader itemReader(object);
            itemReader.read("caption", item.caption);
            itemReader.read("value", item.value);
            itemReader.read("detail", item.detail);
            if (!itemReader.ok())
                return std::nullopt;
            content.fields.push_back(item);
        }
    }
    reader.read("watermarkText", content.watermarkText);
    reader.read("watermarkOpacity", content.watermarkOpacity);
    if (json.contains(QLatin1String("watermarkImage"))) {
        QString file;
        reader.read("watermarkImage", file);
        QImage image(folder.filePath(file));
        if (image.isNull())
            return std::nullopt;
        content.watermarkImage = image;
    }
    if (!reader.ok())
        return std::nullopt;
    return content;
}

} // namespace orvane
