#pragma once

#include <QString>

namespace orvane {

// `text` as a sentence: a full stop added unless it already ends as one ("Connected",
// "No space left on device", but not "Searching…" or "Connected.").
inline QString sentence(const QString& text)
{
    if (text.endsWith(QLatin1Char('.')) || text.endsWith(QChar(0x2026)) ||
        text.endsWith(QLatin1Char('!')) || text.endsWith(QLatin1Char('?')))
        return text;
    return text + QLatin1Char('.');
}

} // namespace orvane
