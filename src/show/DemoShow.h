#pragma once

#include "base/Clock.h"
#include "osc/OSCMessage.h"
#include "show/ShowTime.h"

#include <QList>
#include <QObject>
#include <QString>

#include <cstdint>
#include <functional>
#include <optional>

namespace orvane {

// A pretend show: thirteen cues with their fades, holds, parts and two custom fields, played
// as Eos-style OSC messages into the show data under the sender "Demo", round and round until
// stopped, with a timecode for the overlay while it runs. Main thread only.
class DemoShow : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isRunning READ isRunning NOTIFY isRunningChanged)
    Q_PROPERTY(std::optional<ShowTime> showTime READ showTime NOTIFY showTimeChanged)

public:
    static inline const QString kSender = QStringLiteral("Demo");
    static inline const QString kShowName = QStringLiteral("Demo Musical");
    static constexpr double kTick = 0.1;           // seconds between fade reports
    static constexpr double kShowTimeStart = 3600; // 01:00:00:00
    static constexpr double kShowTimeFramesPerSecond = 25;

    // One cue of the script; `parts` play beside the cue's own fade.
    struct Part {
        int number = 0;
        QString label;
        double delay = 0; // seconds after the cue fires
        double fade = 0;
    };
    struct Cue {
        QString number;
        QString label;
        double fade = 0;
        double hold = 0;
        std::optional<QString> scene;
        std::optional<QString> sound;
        QList<Part> parts;
    };

    // The script, in order: "Preset" to "Interval".
    static const QList<Cue>& script();
    // The text a console sends for `cue` (or its `part`), with the percent when given:
    // "1/14 Opening Number 5.0 45%", "1/14P2 Chase Starts 4.0 30%".
    static QString cueText(const Cue& cue, const Part* part, std::optional<int> percent);

    // Where the show's messages go: the application hands them to the show data.
    using Deliver = std::function<void(const OSCMessage&)>;

    explicit DemoShow(Deliver deliver, Clock& clock = Clock::system(), QObject* parent = nullptr);
    ~DemoShow() override;

    // Starts at the first cue, sending the show name; a running show starts over.
    void start();
    // Stops at once: nothing more is sent.
    void stop();

    bool isRunning() const;
    // 01:00:00:00 at 25 fps from the moment of starting, while running.
    std::optional<ShowTime> showTime() const;

    // Called with every message right after the show data has taken it.
    void setOnMessageForTesting(std::function<void(const OSCMessage&)> onMessage);

Q_SIGNALS:
    void isRunningChanged();
    void showTimeChanged();

private:
    struct Track {
        std::string fireAddress;
        double delay = 0;
        double fade = 0;
        std::function<QString(int percent)> text;
        bool started = false;
        bool finished = false;
    };

    void beginStep();
    void tick();
    // Delivers one message; false when the demo was stopped or restarted meanwhile.
    [[nodiscard]] bool send(std::string address, std::vector<OSCArgument> arguments = {});
    void setRunning(bool running, std::optional<ShowTime> showTime);

    Deliver deliver_;
    Clock& clock_;
    Timer task_;
    bool isRunning_ = false;
    // Counts starts and stops, so that a step or tick notices when a message it sent made the
    // application stop or restart the demo, and sends nothing more.
    std::uint64_t run_ = 0;
    std::optional<ShowTime> showTime_;
    std::int64_t step_ = 0;
    std::optional<int> previousCue_; // index into the script of the cue played before
    QList<Track> tracks_;
    Instant firedAt_{};
    std::function<void(const OSCMessage&)> onMessage_;
};

} // namespace orvane
