#pragma once

#include <QFont>
#include <QString>

class QPaintDevice;

namespace orvane {

// The one sans-serif family every overlay text is set in. Its files are loaded from the
// system's font folder once, explicitly, so that the overlay looks the same whatever
// fontconfig would have chosen; its digits all have the same advance, so changing figures
// never make a line jitter. Any thread.
class OverlayFont {
public:
    // The family name to ask for ("DejaVu Sans"), loading its files on first use.
    static QString family();
    // Whether the family's files were found and loaded.
    static bool isLoaded();
    // The font at `pixelSize` pixels (fractional sizes allowed) and `weight`, unhinted so
    // that advances scale exactly with the size.
    static QFont font(double pixelSize, QFont::Weight weight);
    // A paint device of the resolution the fonts are measured against, for layouts and
    // metrics made without a frame.
    static const QPaintDevice& measuringDevice();
};

} // namespace orvane
