#pragma once

#include <QString>
#include <QStringView>

#include <optional>

namespace orvane {

// One cue as an Eos console describes it in a line of cue text, such as
// "1/14 Opening Number 5 45%" or "1/14P2 Chase Starts 4 30%". A plain value; any thread.
struct EosCue {
    QString list;                     // cue list number; empty when the text names none
    QString number;                   // cue number as text: "14", "14.5"
    std::optional<QString> part;      // part number when the text names a part
    std::optional<QString> partLabel; // that part's label (the parser leaves it empty)
    QString label;
    QString time;               // the time as the console gives it: "5", "2:30", "0.5"
    std::optional<int> percent; // progress in percent when known

    // Reads one line of Eos cue text: cue token (with "P2" or a following "Part2" piece naming
    // a part), label, time and percent. Nothing when the text names no cue.
    static std::optional<EosCue> parse(QStringView text);

    // Reads a cue's time text as seconds: "5", "0.5", "2:30" (minutes and seconds) or
    // "1:02:30" (hours too). Nothing when it is not such a time.
    static std::optional<double> durationOf(QStringView time);

    // "list/number", or the number alone when there is no list.
    QString token() const;

    friend bool operator==(const EosCue&, const EosCue&) = default;
};

} // namespace orvane
