#include "show/ShowData.h"

#include "base/Checks.h"
#include "show/MessageText.h"

#include <QLocale>
#include <QLoggingCategory>

#include <algorithm>

Q_LOGGING_CATEGORY(lcShow, "orvane.show", QtInfoMsg)

namespace orvane {

namespace {

const QString kCueItself = QStringLiteral("1");

// A part number as the parts list keys it: no part, "0" and "1" all name the cue itself.
QString partKey(const std::optional<QString>& part)
{
    if (!part)
        return kCueItself;
    // "03" and "3" are the same part; a part 0 is the cue itself.
    bool isNumber = false;
    const qlonglong number = part->toLongLong(&isNumber);
    if (!isNumber)
        return *part;
    return number == 0 ? kCueItself : QString::number(number);
}

// Part numbers in numeric order; anything that is not a whole number after all numbers.
bool partBefore(const QString& left, const QString& right)
{
    bool leftIsNumber = false;
    bool rightIsNumber = false;
    const qlonglong leftNumber = left.toLongLong(&leftIsNumber);
    const qlonglong rightNumber = right.toLongLong(&rightIsNumber);
    if (leftIsNumber && rightIsNumber)
        return leftNumber < rightNumber;
    if (leftIsNumber != rightIsNumber)
        return leftIsNumber;
    return left < right;
}

// The fraction of a fade that a reported percent stands for: done when none was reported.
double cueFraction(const std::optional<int>& percent)
{
    if (!percent)
        return 1;
    if (*percent < 1)
        return 0;
    return std::min(*percent, 100) / 100.0;
}

} // namespace

ShowData::ShowData(Clock& clock, QObject* parent)
    : QObject(parent)
    , clock_(clock)
    , hearingTimer_(clock)
{
    hearingTimer_.startRepeating(Seconds(kHearingTick), [this] { checkHearing(); });
}

ShowData::~ShowData() = default;

template <class T>
static bool assign(ShowData* owner, T& member, T value, void (ShowData::*changed)())
{
    if (member == value)
        return false;
    member = std::move(value);
    Q_EMIT(owner->*changed)();
    return true;
}

void ShowData::handle(const OSCMessage& message, const QString& sender)
{
    assertOnOwnThread(this);
    const std::optional<QString> text = messageTextValue(message);
    const QString address = QString::fromStdString(message.address);
    assign(this, lastReceived_,
           std::optional(address + u' ' + text.value_or(QString()) + QStringLiteral(" from ") +
                         sender),
           &ShowData::lastReceivedChanged);

    if (address.startsWith(u"/eos/out/"))
        handleEos(message, text, sender);
    else if (address.startsWith(u"/tavrin/", Qt::CaseInsensitive))
        handleTavrin(message, text);
    checkWatched(message);
}

void ShowData::handleEos(const OSCMessage& message, const std::optional<QString>& text,
                         const QString& sender)
{
    lastEosMessage_ = clock_.wallNow();
    lastEosInstant_ = clock_.now();
    assign(this, isHearingEos_, true, &ShowData::isHearingEosChanged);
    assign(this, eosSender_, std::optional(sender), &ShowData::eosSenderChanged);

    const QString address = QString::fromStdString(message.address);
    const auto parse = [&] { return text ? EosCue::parse(*text) : std::nullopt; };
    if (address == u"/eos/out/show/name") {
        assign(this, showName_, text, &ShowData::showNameChanged);
    } else if (address == u"/eos/out/active/cue/text") {
        takeActiveCue(text);
    } else if (address == u"/eos/out/pending/cue/text") {
        assign(this, pendingCue_, parse(), &ShowData::pendingCueChanged);
    } else if (address == u"/eos/out/previous/cue/text") {
        assign(this, previousCue_, parse(), &ShowData::previousCueChanged);
    } else {
        const QList<QStringView> components = QStringView(address).split(u'/', Qt::SkipEmptyParts);
        if (components.size() >= 7 && components[2] == u"event" && components[3] == u"cue" &&
            components.last() == u"fire")
            takeFire(components);
    }
}

void ShowData::takeActiveCue(const std::optional<QString>& text)
{
    const std::optional<EosCue> cue = text ? EosCue::parse(*text) : std::nullopt;
    assign(this, activeCue_, cue, &ShowData::activeCueChanged);

    if (!cue) {
        assign(this, activeCueClock_, std::optional<FadeClock>(), &ShowData::activeCueClockChanged);
        parts_.clear();
        partsCue_.reset();
        runningPart_.reset();
        publishParts();
    } else {
        const WallTime now = clock_.wallNow();
        std::optional<FadeClock> fadeClock;
        const std::optional<double> duration = EosCue::durationOf(cue->time);
        if (duration && *duration > 0) {
            const double fraction = std::clamp(cueFraction(cue->percent), 0.0, 1.0);
            fadeClock = FadeClock{*duration, addSeconds(now, -fraction * *duration), fraction, now,
                                  fraction > 0};
        }
        assign(this, activeCueClock_, fadeClock, &ShowData::activeCueClockChanged);
        assign(this, activeCueSampledAt_, now, &ShowData::activeCueSampledAtChanged);

        const CueKey key{cue->list, cue->number};
        if (partsCue_ != key)
            startPartList(key);
        reportPart(*cue);
        publishParts();
    }

    const std::optional<QString> number = cue ? std::optional(cue->token()) : std::nullopt;
    if (number != reportedCueNumber_) {
        reportedCueNumber_ = number;
        if (onCueChange_)
            onCueChange_(cue);
    }
}

void ShowData::takeFire(const QList<QStringView>& components)
{
    Fire fire{components[4].toString(), components[5].toString(), std::nullopt, clock_.wallNow()};
    if (components.size() > 7)
        fire.part = components[6].toString();
    if (lastFire_ && lastFire_->list == fire.list && lastFire_->number == fire.number &&
        lastFire_->part == fire.part)
        return;
    lastFire_ = fire;

    const CueKey key{fire.list, fire.number};
    if (partsCue_ != key)
        startPartList(key);
    // A part fired again starts over: its next line of text gives it a new clock from here.
    const QString number = partKey(fire.part);
    EosCuePart& entry = partEntry(number);
    entry.percent = 0;
    entry.sampledAt = fire.at;
    entry.clock.reset();
    runningPart_ = number;
    publishParts();
}

void ShowData::startPartList(const CueKey& cue)
{
    parts_.clear();
    partsCue_ = cue;
    runningPart_.reset();
}

EosCuePart& ShowData::partEntry(const QString& number)
{
    auto at = std::find_if(parts_.begin(), parts_.end(),
                           [&](const EosCuePart& part) { return part.number == number; });
    if (at != parts_.end())
        return *at;
    at = std::find_if(parts_.begin(), parts_.end(),
                      [&](const EosCuePart& part) { return partBefore(number, part.number); });
    EosCuePart entry;
    entry.number = number;
    entry.sampledAt = clock_.wallNow();
    return *parts_.insert(at, entry);
}

// The part fade clock: a part keeps its clock and reports to it; a part without one gets a
// clock placed by its percent, or started at its fire event when that was seen within one fade.
void ShowData::reportPart(const EosCue& cue)
{
    const WallTime now = clock_.wallNow();
    const QString number = partKey(cue.part);
    runningPart_ = number;

    EosCuePart& entry = partEntry(number);
    const int percent = std::clamp(cue.percent.value_or(100), 0, 100);
    const double fraction = percent / 100.0;
    entry.label = cue.label;
    entry.time = cue.time;
    entry.percent = percent;
    entry.sampledAt = now;
    entry.hasText = true;
    if (entry.clock) {
        entry.clock->report(fraction, now);
        return;
    }

    const std::optional<double> duration = EosCue::durationOf(entry.time);
    if (!duration || *duration <= 0)
        return;
    WallTime start = addSeconds(now, -fraction * *duration);
    if (lastFire_ && lastFire_->list == cue.list && lastFire_->number == cue.number &&
        partKey(lastFire_->part) == number && secondsBetween(lastFire_->at, now) < *duration)
        start = lastFire_->at;
    entry.clock = FadeClock{*duration, start, fraction, now, fraction > 0};
}

// The cue itself is a part of the list only beside other parts: a cue without parts shows as
// the cue, with the active cue's own clock.
void ShowData::publishParts()
{
    const bool hasParts = std::any_of(parts_.begin(), parts_.end(), [](const EosCuePart& part) {
        return part.number != kCueItself;
    });
    assign(this, activeParts_, hasParts ? parts_ : QList<EosCuePart>(),
           &ShowData::activePartsChanged);
}

void ShowData::handleTavrin(const OSCMessage& message, const std::optional<QString>& text)
{
    const QString address = QString::fromStdString(message.address);
    const QList<QStringView> components = QStringView(address).split(u'/', Qt::SkipEmptyParts);
    if (components.size() < 2 || components[0].compare(u"tavrin", Qt::CaseInsensitive) != 0)
        return;
    const QString command = components[1].toString().toLower();
    const auto third = [&](QStringView word) {
        return components.size() == 3 && components[2].compare(word, Qt::CaseInsensitive) == 0;
    };

    if (command == u"record") {
        if (third(u"start"))
            raise(ShowCommand::startRecording());
        else if (third(u"stop"))
            raise(ShowCommand::stopRecording());
        else
            raise(ShowCommand::toggleRecording());
    } else if (command == u"marker") {
        raise(ShowCommand::marker(text && !text->isEmpty() ? *text : QStringLiteral("Marker")));
    } else if (command == u"layout") {
        if (text && !text->isEmpty())
            raise(ShowCommand::layout(*text));
    } else if (command == u"field") {
        if (components.size() < 3)
            return;
        QStringList label;
        for (QStringView word : components.mid(2))
            label.append(word.toString());
        setField(address, label.join(u' '), text.value_or(QString()));
    } else if (command == u"clear") {
        clear();
    }
}

void ShowData::raise(const ShowCommand& command)
{
    if (onCommand_)
        onCommand_(command);
}

void ShowData::checkWatched(const OSCMessage& message)
{
    const QString address = QString::fromStdString(message.address);
    for (const WatchedAddress& watched : std::as_const(watchedAddresses_)) {
        if (!watchedAddressMatches(watched, address))
            continue;
        setField(watched.address, watched.label, watchedValueText(message.arguments, QLocale()));
        return;
    }
}

void ShowData::setField(const QString& id, const QString& label, const QString& value)
{
    const ShowField field{id, label, value, clock_.wallNow()};
    auto at = std::find_if(fields_.begin(), fields_.end(),
                           [&](const ShowField& existing) { return existing.id == id; });
    if (at == fields_.end())
        fields_.append(field);
    else if (*at != field)
        *at = field;
    else
        return;
    Q_EMIT fieldsChanged();
}

void ShowData::clear()
{
    assertOnOwnThread(this);
    assign(this, showName_, std::optional<QString>(), &ShowData::showNameChanged);
    assign(this, activeCue_, std::optional<EosCue>(), &ShowData::activeCueChanged);
    assign(this, pendingCue_, std::optional<EosCue>(), &ShowData::pendingCueChanged);
    assign(this, previousCue_, std::optional<EosCue>(), &ShowData::previousCueChanged);
    parts_.clear();
    partsCue_.reset();
    publishParts();
    assign(this, activeCueClock_, std::optional<FadeClock>(), &ShowData::activeCueClockChanged);
    assign(this, fields_, QList<ShowField>(), &ShowData::fieldsChanged);
    assign(this, eosSender_, std::optional<QString>(), &ShowData::eosSenderChanged);
    lastEosMessage_.reset();
    lastEosInstant_.reset();
    lastFire_.reset();
    reportedCueNumber_.reset();
    runningPart_.reset();
    assign(this, isHearingEos_, false, &ShowData::isHearingEosChanged);
}

void ShowData::checkHearing()
{
    if (!isHearingEos_ || !lastEosInstant_)
        return;
    if (secondsBetween(*lastEosInstant_, clock_.now()) > kHearingSilence)
        assign(this, isHearingEos_, false, &ShowData::isHearingEosChanged);
}

void ShowData::setOnCueChange(std::function<void(const std::optional<EosCue>&)> onCueChange)
{
    assertOnOwnThread(this);
    onCueChange_ = std::move(onCueChange);
}

void ShowData::setOnCommand(std::function<void(const ShowCommand&)> onCommand)
{
    assertOnOwnThread(this);
    onCommand_ = std::move(onCommand);
}

void ShowData::setWatchedAddresses(QList<WatchedAddress> watchedAddresses)
{
    assertOnOwnThread(this);
    watchedAddresses_ = std::move(watchedAddresses);
}

QList<WatchedAddress> ShowData::watchedAddresses() const
{
    return watchedAddresses_;
}
std::optional<QString> ShowData::showName() const
{
    return showName_;
}
std::optional<EosCue> ShowData::activeCue() const
{
    return activeCue_;
}
std::optional<EosCue> ShowData::pendingCue() const
{
    return pendingCue_;
}
std::optional<EosCue> ShowData::previousCue() const
{
    return previousCue_;
}
bool ShowData::isHearingEos() const
{
    return isHearingEos_;
}
std::optional<QString> ShowData::eosSender() const
{
    return eosSender_;
}
QList<EosCuePart> ShowData::activeParts() const
{
    return activeParts_;
}
WallTime ShowData::activeCueSampledAt() const
{
    return activeCueSampledAt_;
}
std::optional<FadeClock> ShowData::activeCueClock() const
{
    return activeCueClock_;
}
QList<ShowField> ShowData::fields() const
{
    return fields_;
}
std::optional<QString> ShowData::lastReceived() const
{
    return lastReceived_;
}
std::optional<WallTime> ShowData::lastEosMessage() const
{
    return lastEosMessage_;
}
std::optional<QString> ShowData::runningPart() const
{
    return runningPart_;
}
std::optional<ShowData::Fire> ShowData::lastFire() const
{
    return lastFire_;
}
std::optional<QString> ShowData::reportedCueNumber() const
{
    return reportedCueNumber_;
}

} // namespace orvane
