#pragma once

#include "base/Clock.h"
#include "osc/OSCMessage.h"
#include "show/EosCue.h"
#include "show/EosCuePart.h"
#include "show/FadeClock.h"
#include "show/ShowCommand.h"
#include "show/ShowField.h"
#include "show/WatchedAddress.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

namespace orvane {

// What Orvane knows of the show at this moment: the show's name, the active, pending and
// previous Eos cue with the parts of the active cue and their fades, whether Eos output is
// heard, the custom fields, and the last message received. Fed with decoded OSC messages from
// every source (the Eos link, the UDP listener, the demo show) through the application's one
// door, `ShowInput`; raises commands and cue changes. Main thread only.
class ShowData : public QObject {
    Q_OBJECT
    Q_PROPERTY(std::optional<QString> showName READ showName NOTIFY showNameChanged)
    Q_PROPERTY(std::optional<EosCue> activeCue READ activeCue NOTIFY activeCueChanged)
    Q_PROPERTY(std::optional<EosCue> pendingCue READ pendingCue NOTIFY pendingCueChanged)
    Q_PROPERTY(std::optional<EosCue> previousCue READ previousCue NOTIFY previousCueChanged)
    Q_PROPERTY(bool isHearingEos READ isHearingEos NOTIFY isHearingEosChanged)
    Q_PROPERTY(std::optional<QString> eosSender READ eosSender NOTIFY eosSenderChanged)
    Q_PROPERTY(QList<EosCuePart> activeParts READ activeParts NOTIFY activePartsChanged)
    Q_PROPERTY(WallTime activeCueSampledAt READ activeCueSampledAt NOTIFY activeCueSampledAtChanged)
    Q_PROPERTY(
        std::optional<FadeClock> activeCueClock READ activeCueClock NOTIFY activeCueClockChanged)
    Q_PROPERTY(QList<ShowField> fields READ fields NOTIFY fieldsChanged)
    Q_PROPERTY(std::optional<QString> lastReceived READ lastReceived NOTIFY lastReceivedChanged)

public:
    // The last cue fire event seen, so that a repeat of it is ignored.
    struct Fire {
        QString list;
        QString number;
        std::optional<QString> part;
        WallTime at{};
        friend bool operator==(const Fire&, const Fire&) = default;
    };

    explicit ShowData(Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~ShowData() override;

    // Handles one message from `sender` (the listener's sender text, the console's address,
    // or "Demo").
    void handle(const OSCMessage& message, const QString& sender);
    // Forgets the whole show at once: show name, cues, parts, fade clock, fields, Eos sender,
    // hearing flag.
    void clear();

    void setOnCueChange(std::function<void(const std::optional<EosCue>&)> onCueChange);
    void setOnCommand(std::function<void(const ShowCommand&)> onCommand);
    void setWatchedAddresses(QList<WatchedAddress> watchedAddresses);
    QList<WatchedAddress> watchedAddresses() const;

    std::optional<QString> showName() const;
    std::optional<EosCue> activeCue() const;
    std::optional<EosCue> pendingCue() const;
    std::optional<EosCue> previousCue() const;
    bool isHearingEos() const;
    std::optional<QString> eosSender() const;
    QList<EosCuePart> activeParts() const;
    WallTime activeCueSampledAt() const;
    std::optional<FadeClock> activeCueClock() const;
    QList<ShowField> fields() const;
    std::optional<QString> lastReceived() const;

    std::optional<WallTime> lastEosMessage() const;
    std::optional<QString> runningPart() const;
    std::optional<Fire> lastFire() const;
    std::optional<QString> reportedCueNumber() const;

    // Seconds of silence after which Eos output no longer counts as heard, and how often
    // that is checked.
    static constexpr double kHearingSilence = 30;
    static constexpr double kHearingTick = 2;

Q_SIGNALS:
    void showNameChanged();
    void activeCueChanged();
    void pendingCueChanged();
    void previousCueChanged();
    void isHearingEosChanged();
    void eosSenderChanged();
    void activePartsChanged();
    void activeCueSampledAtChanged();
    void activeCueClockChanged();
    void fieldsChanged();
    void lastReceivedChanged();

private:
    struct CueKey {
        QString list;
        QString number;
        friend bool operator==(const CueKey&, const CueKey&) = default;
    };

    void handleEos(const OSCMessage& message, const std::optional<QString>& text,
                   const QString& sender);
    void takeActiveCue(const std::optional<QString>& text);
    void takeFire(const QList<QStringView>& components);
    void handleTavrin(const OSCMessage& message, const std::optional<QString>& text);
    void checkWatched(const OSCMessage& message);
    void setField(const QString& id, const QString& label, const QString& value);
    void raise(const ShowCommand& command);
    void checkHearing();

    void startPartList(const CueKey& cue);
    EosCuePart& partEntry(const QString& number);
    void reportPart(const EosCue& cue);
    void publishParts();

    Clock& clock_;
    Timer hearingTimer_;

    std::optional<QString> showName_;
    std::optional<EosCue> activeCue_;
    std::optional<EosCue> pendingCue_;
    std::optional<EosCue> previousCue_;
    std::optional<WallTime> lastEosMessage_;
    std::optional<Instant> lastEosInstant_;
    bool isHearingEos_ = false;
    std::optional<QString> runningPart_;
    std::optional<QString> eosSender_;
    // Every part heard of for the cue `partsCue_`, the cue itself as part "1" among them.
    QList<EosCuePart> parts_;
    std::optional<CueKey> partsCue_;
    QList<EosCuePart> activeParts_;
    WallTime activeCueSampledAt_{};
    std::optional<FadeClock> activeCueClock_;
    std::optional<Fire> lastFire_;
    std::optional<QString> reportedCueNumber_;
    QList<ShowField> fields_;
    std::optional<QString> lastReceived_;

    std::function<void(const ShowCommand&)> onCommand_;
    std::function<void(const std::optional<EosCue>&)> onCueChange_;
    QList<WatchedAddress> watchedAddresses_;
};

} // namespace orvane
