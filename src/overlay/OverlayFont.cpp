#include "overlay/OverlayFont.h"

#include <QFontDatabase>
#include <QImage>
#include <QLoggingCategory>
#include <QStringList>

#include <mutex>

namespace orvane {

namespace {

Q_LOGGING_CATEGORY(lcOverlay, "orvane.overlay")

// Debian's fonts-dejavu-core; the bold face stands for semibold, the family having no
// weight in between.
const char* const kFontFiles[] = {
    "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf",
    "/usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf",
};
const char* const kFamily = "DejaVu Sans";

// Fonts are sized in points against a 96 dpi device: 0.75 point per pixel, exactly.
constexpr int kDotsPerMeterAt96Dpi = 3780;
constexpr double kPointsPerPixel = 72.0 / 96.0;

struct LoadedFamily {
    QString family;
    bool loaded = false;
};

const LoadedFamily& loadedFamily()
{
    static const LoadedFamily result = [] {
        LoadedFamily loaded{QString::fromLatin1(kFamily), true};
        for (const char* file : kFontFiles) {
            const int id = QFontDatabase::addApplicationFont(QString::fromLatin1(file));
            if (id < 0) {
                qCWarning(lcOverlay,
                          "overlay: could not load the font file %s; "
                          "overlay text falls back to the system's sans-serif",
                          file);
                loaded.loaded = false;
                continue;
            }
            const QStringList families = QFontDatabase::applicationFontFamilies(id);
            if (!families.isEmpty())
                loaded.family = families.first();
        }
        return loaded;
    }();
    return result;
}

} // namespace

QString OverlayFont::family()
{
    return loadedFamily().family;
}

bool OverlayFont::isLoaded()
{
    return loadedFamily().loaded;
}

QFont OverlayFont::font(double pixelSize, QFont::Weight weight)
{
    QFont font(family());
    font.setStyleHint(QFont::SansSerif);
    font.setHintingPreference(QFont::PreferNoHinting);
    font.setPointSizeF(pixelSize * kPointsPerPixel);
    font.setWeight(weight);
    font.setKerning(true);
    return font;
}

const QPaintDevice& OverlayFont::measuringDevice()
{
    thread_local const QImage device = [] {
        QImage image(1, 1, QImage::Format_ARGB32_Premultiplied);
        image.setDotsPerMeterX(kDotsPerMeterAt96Dpi);
        image.setDotsPerMeterY(kDotsPerMeterAt96Dpi);
        return image;
    }();
    return device;
}

} // namespace orvane
