#include "show/EosCue.h"

#include <QList>
#include <QRegularExpression>

#include <cmath>

namespace orvane {

namespace {

bool isTimeText(QStringView piece)
{
    for (QChar c : piece) {
        if (!(c >= u'0' && c <= u'9') && c != u'.' && c != u':')
            return false;
    }
    return !piece.isEmpty();
}

bool readsAsNumber(QStringView text)
{
    bool ok = false;
    const double value = text.toDouble(&ok);
    return ok && std::isfinite(value);
}

} // namespace

std::optional<EosCue> EosCue::parse(QStringView text)
{
    QList<QStringView> pieces = text.split(u' ', Qt::SkipEmptyParts);
    if (pieces.isEmpty())
        return std::nullopt;

    static const QRegularExpression partInToken(QStringLiteral("^(.+?)[Pp](\\d+)$"));
    static const QRegularExpression partPiece(QStringLiteral("^[Pp](?:art)?(\\d+)$"));

    QStringView token = pieces.takeFirst();
    std::optional<QString> part;
    if (const auto match = partInToken.match(token); match.hasMatch()) {
        token = match.capturedView(1);
        part = match.captured(2);
    } else if (!pieces.isEmpty()) {
        if (const auto next = partPiece.match(pieces.first()); next.hasMatch()) {
            part = next.captured(1);
            pieces.removeFirst();
        }
    }
    if (!token.contains(u'/') && !readsAsNumber(token))
        return std::nullopt;

    EosCue cue;
    if (const qsizetype slash = token.indexOf(u'/'); slash >= 0) {
        cue.list = token.left(slash).toString();
        cue.number = token.mid(slash + 1).toString();
    } else {
        cue.number = token.toString();
    }
    if (part && *part != u"0")
        cue.part = part;

    if (!pieces.isEmpty() && pieces.last().endsWith(u'%')) {
        bool ok = false;
        const int percent = pieces.last().chopped(1).toInt(&ok, 10);
        if (ok) {
            cue.percent = percent;
            pieces.removeLast();
        }
    }
    if (!pieces.isEmpty() && isTimeText(pieces.last()))
        cue.time = pieces.takeLast().toString();

    QStringList label;
    for (QStringView piece : pieces)
        label.append(piece.toString());
    cue.label = label.join(u' ');
    return cue;
}

std::optional<double> EosCue::durationOf(QStringView time)
{
    const QList<QStringView> pieces = time.trimmed().split(u':');
    if (pieces.size() > 3)
        return std::nullopt;
    double seconds = 0;
    for (QStringView piece : pieces) {
        bool ok = false;
        const double value = piece.toDouble(&ok);
        if (!ok || !std::isfinite(value) || value < 0 || !isTimeText(piece))
            return std::nullopt;
        seconds = seconds * 60 + value;
    }
    return seconds;
}

QString EosCue::token() const
{
    return list.isEmpty() ? number : list + u'/' + number;
}

} // namespace orvane
