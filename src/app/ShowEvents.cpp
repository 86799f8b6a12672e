#include "app/ShowEvents.h"

namespace orvane {

std::optional<ShowEventRow> cueChangeRow(const std::optional<EosCue>& cue)
{
    if (!cue || cue->number.isEmpty())
        return std::nullopt;
    return ShowEventRow{QStringLiteral("Cue ") + cue->number, cue->label};
}

std::vector<ShowEventRow> qlabStartRows(QSet<QString>& running, const std::vector<QLabCue>& cues)
{
    std::vector<ShowEventRow> rows;
    QSet<QString> now;
    for (const auto& cue : cues) {
        now.insert(cue.id);
        if (running.contains(cue.id) || cue.type == QLatin1String("Cue List"))
            continue;
        const QString event =
            cue.number.isEmpty() ? QStringLiteral("QLab") : QStringLiteral("QLab ") + cue.number;
        rows.push_back({event, cue.name});
    }
    running = std::move(now);
    return rows;
}

} // namespace orvane
