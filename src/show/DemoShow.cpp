#include "show/DemoShow.h"

#include "base/Checks.h"
#include "show/ShowData.h"

#include <algorithm>
#include <cmath>

namespace orvane {

namespace {

// Ticks fall on exact tenths of a second, and a tenth has no exact binary value: 0.3 s into
// a 3 s fade is 10 %, not 9.999... %.
constexpr double kRounding = 1e-9;

std::optional<QString> text(const char* value)
{
    return QString::fromUtf8(value);
}

} // namespace

const QList<DemoShow::Cue>& DemoShow::script()
{
    static const QList<Cue> cues{
        {"1",
         "Preset",
         3,
         3,
         text("Preshow"),
         text("Q 1 · House Music"),
         {{2, "Curtain Warmers", 0.5, 4}, {3, "Orchestra Pit", 1.5, 2.5}}},
        {"5", "House to Half", 3, 2, {}, {}, {}},
        {"6", "House Out", 4, 2, {}, text("Q 3 · Fade House Music"), {}},
        {"10", "Overture", 3, 5, text("Overture"), text("Q 10 · Overture"), {}},
        {"14",
         "Opening Number",
         5,
         3,
         text("Act One · Scene One"),
         text("Q 14 · Opening Number"),
         {{2, "Chase Starts", 2, 4}, {3, "Cyc Colour Change", 3, 2}}},
        {"20", "Town Square", 4, 4, text("Act One · Scene Two"), {}, {}},
        {"22", "Lead Enters", 1.5, 4, {}, {}, {}},
        {"30", "Ballad", 6, 5, {}, text("Q 30 · Ballad"), {}},
        {"30.5", "Follow Spot Pickup", 2, 3, {}, {}, {}},
        {"40",
         "Ensemble Number",
         3,
         3,
         text("Act One · Scene Three"),
         text("Q 40 · Ensemble"),
         {{2, "Button Flash", 0.3, 0.5}, {3, "Restore", 1, 3}}},
        {"50",
         "Night Scene",
         5,
         5,
         text("Act One · Scene Four"),
         text("Q 50 · Night Ambience"),
         {}},
        {"60", "Act One Finale", 3, 5, {}, text("Q 60 · Finale"), {}},
        {"99", "Interval", 5, 4, text("Interval"), text("Q 99 · House Music"), {}},
    };
    return cues;
}

QString DemoShow::cueText(const Cue& cue, const Part* part, std::optional<int> percent)
{
    QString text = QStringLiteral("1/") + cue.number;
    if (part)
        text += QStringLiteral("P%1").arg(part->number);
    text += u' ' + (part ? part->label : cue.label);
    text += u' ' + QString::asprintf("%.1f", part ? part->fade : cue.fade);
    if (percent)
        text += QStringLiteral(" %1%").arg(*percent);
    return text;
}

DemoShow::DemoShow(Deliver deliver, Clock& clock, QObject* parent)
    : QObject(parent)
    , deliver_(std::move(deliver))
    , clock_(clock)
    , task_(clock)
{
}

DemoShow::~DemoShow() = default;

void DemoShow::start()
{
    assertOnOwnThread(this);
    ++run_;
    task_.stop();
    tracks_.clear();
    step_ = 0;
    previousCue_.reset();
    setRunning(true,
               ShowTime{kShowTimeStart, 0, clock_.wallNow(), false, kShowTimeFramesPerSecond});
    if (send("/eos/out/show/name", {kShowName.toStdString()}))
        beginStep();
}

void DemoShow::stop()
{
    assertOnOwnThread(this);
    ++run_;
    task_.stop();
    tracks_.clear();
    setRunning(false, std::nullopt);
}

void DemoShow::beginStep()
{
    const QList<Cue>& cues = script();
    const int current = int(step_ % cues.size());
    const int next = int((step_ + 1) % cues.size());
    const Cue& cue = cues[current];

    if (previousCue_ && !send("/eos/out/previous/cue/text",
                              {cueText(cues[*previousCue_], nullptr, 100).toStdString()}))
        return;
    if (!send("/eos/out/pending/cue/text",
              {cueText(cues[next], nullptr, std::nullopt).toStdString()}))
        return;
    if (cue.scene && !send("/tavrin/field/Scene", {cue.scene->toStdString()}))
        return;
    if (cue.sound && !send("/tavrin/field/Sound", {cue.sound->toStdString()}))
        return;

    const std::string cueAddress = "/eos/out/event/cue/1/" + cue.number.toStdString();
    tracks_.clear();
    tracks_.append(Track{cueAddress + "/fire", 0, cue.fade,
                         [cue](int percent) { return cueText(cue, nullptr, percent); }});
    for (const Part& part : cue.parts) {
        tracks_.append(Track{cueAddress + "/" + std::to_string(part.number) + "/fire", part.delay,
                             part.fade,
                             [cue, part](int percent) { return cueText(cue, &part, percent); }});
    }
    previousCue_ = current;
    ++step_;
    firedAt_ = clock_.now();
    task_.startRepeating(Seconds(kTick), [this] { tick(); });
    tick();
}

void DemoShow::tick()
{
    const double elapsed = secondsBetween(firedAt_, clock_.now());
    for (Track& track : tracks_) {
        if (track.finished || track.delay > elapsed + kRounding)
            continue;
        if (!track.started) {
            track.started = true;
            if (!send(track.fireAddress))
                return;
        }
        double fraction = 1;
        if (track.fade > 0)
            fraction = std::min((elapsed - track.delay) / track.fade + kRounding, 1.0);
        const int percent = int(std::trunc(fraction * 100));
        if (!send("/eos/out/active/cue/text", {track.text(percent).toStdString()}))
            return;
        if (fraction >= 1)
            track.finished = true;
    }

    const bool allFinished = std::all_of(tracks_.begin(), tracks_.end(),
                                         [](const Track& track) { return track.finished; });
    if (!allFinished)
        return;
    const Cue& cue = script()[*previousCue_];
    task_.start(Seconds(cue.hold), [this] { beginStep(); });
}

bool DemoShow::send(std::string address, std::vector<OSCArgument> arguments)
{
    const std::uint64_t run = run_;
    const OSCMessage message{std::move(address), std::move(arguments)};
    deliver_(message);
    if (onMessage_)
        onMessage_(message);
    return run == run_;
}

void DemoShow::setRunning(bool running, std::optional<ShowTime> showTime)
{
    const bool runningChanged = isRunning_ != running;
    const bool showTimeChanged = showTime_ != showTime;
    isRunning_ = running;
    showTime_ = showTime;
    if (runningChanged)
        Q_EMIT isRunningChanged();
    if (showTimeChanged)
        Q_EMIT this->showTimeChanged();
}

bool DemoShow::isRunning() const
{
    return isRunning_;
}

std::optional<ShowTime> DemoShow::showTime() const
{
    return showTime_;
}

void DemoShow::setOnMessageForTesting(std::function<void(const OSCMessage&)> onMessage)
{
    onMessage_ = std::move(onMessage);
}

} // namespace orvane
