#pragma once

#include "qlab/QLabCue.h"
#include "show/EosCue.h"

#include <QSet>
#include <QString>

#include <optional>
#include <vector>

namespace orvane {

// Which show events become rows of the cue log, and how they read. docs/cue-log.md lists the
// rule. Any thread.
struct ShowEventRow {
    QString event;
    QString detail;
    friend bool operator==(const ShowEventRow&, const ShowEventRow&) = default;
};

// A cue change reported by the show data: "Cue 47", detail the cue's label. A change to no
// cue, or a part of the same cue, adds no row.
std::optional<ShowEventRow> cueChangeRow(const std::optional<EosCue>& cue);

// The QLab cues that started since `running` was last seen: "QLab 12" (or "QLab" when the
// cue has no number), detail its name. Cue lists, and cues that merely pause or resume, add no
// row. `running` becomes the set of cue ids now running.
std::vector<ShowEventRow> qlabStartRows(QSet<QString>& running, const std::vector<QLabCue>& cues);

} // namespace orvane
