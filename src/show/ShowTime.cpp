#include "show/ShowTime.h"

#include <QList>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>

namespace orvane {

namespace {

constexpr double kFrameTolerance = 1e-6; // of a frame

// A finite, non-negative number written in the plain C notation, or nothing.
std::optional<double> readNonNegative(QStringView text)
{
    bool ok = false;
    const double value = text.toDouble(&ok);
    if (!ok || !std::isfinite(value) || value < 0)
        return std::nullopt;
    return value;
}

} // namespace

double ShowTime::secondsAt(WallTime now) const
{
    const double run = isPaused ? 0.0 : std::max(0.0, secondsBetween(sampledAt, now));
    return start + elapsed + run;
}

QString ShowTime::format(double seconds, double framesPerSecond)
{
    const double clamped = std::isfinite(seconds) ? std::max(seconds, 0.0) : 0.0;
    const double rate = std::isfinite(framesPerSecond) ? framesPerSecond : 0.0;
    const double whole = std::trunc(clamped);
    const double fraction = rate * (clamped - whole);

    const auto hours = static_cast<int>(std::fmod(std::floor(whole / 3600), 24));
    const auto minutes = static_cast<int>(std::fmod(std::floor(whole / 60), 60));
    const auto secs = static_cast<int>(std::fmod(whole, 60));
    const double lastFrame = std::max(std::ceil(rate), 1.0) - 1;
    // A time that lies on a frame shows that frame, not the one before it: 3723.04 s at 25 fps
    // is stored as a hair less than 1 frame past the second.
    const double frame = std::trunc(fraction + kFrameTolerance);
    const auto frames = static_cast<int>(std::max(0.0, std::min(lastFrame, frame)));

    return QString::asprintf("%02d:%02d:%02d:%02d", hours, minutes, secs, frames);
}

std::optional<double> ShowTime::parse(QStringView text, double framesPerSecond)
{
    const QStringView trimmed = text.trimmed();
    static const QRegularExpression separators(QStringLiteral("[:;]"));
    const QList<QStringView> pieces = trimmed.split(separators, Qt::SkipEmptyParts);
    if (pieces.size() != 3 && pieces.size() != 4)
        return readNonNegative(trimmed);

    double numbers[4] = {};
    for (qsizetype i = 0; i < pieces.size(); ++i) {
        const auto number = readNonNegative(pieces[i]);
        if (!number)
            return std::nullopt;
        numbers[i] = *number;
    }
    const double hours = numbers[0];
    const double minutes = numbers[1];
    const double secs = numbers[2];
    if (minutes >= 60 || secs >= 60)
        return std::nullopt;
    double result = hours * 3600 + minutes * 60 + secs;
    if (pieces.size() == 4) {
        if (!(framesPerSecond > 0) || !std::isfinite(framesPerSecond))
            return std::nullopt;
        result += numbers[3] / framesPerSecond;
    }
    return result;
}

} // namespace orvane
