#include "overlay/TextLine.h"

#include "overlay/OverlayFont.h"

#include <QPainter>
#include <QTextLayout>
#include <QTextOption>

namespace orvane {

TextLine TextLine::make(const QString& text, const QFont& font, const QColor& color,
                        double letterSpacing)
{
    TextLine result;
    result.text_ = text;
    result.color_ = color;

    QFont spaced = font;
    if (letterSpacing != 0)
        spaced.setLetterSpacing(QFont::AbsoluteSpacing, letterSpacing);

    QTextLayout layout(text, spaced, &OverlayFont::measuringDevice());
    QTextOption option;
    option.setWrapMode(QTextOption::NoWrap);
    // Unrounded advances: text scales exactly with the frame, as the panels do.
    option.setUseDesignMetrics(true);
    layout.setTextOption(option);
    layout.beginLayout();
    QTextLine line = layout.createLine();
    if (!line.isValid()) {
        layout.endLayout();
        return result;
    }
    line.setPosition(QPointF(0, 0));
    layout.endLayout();

    result.runs_ = layout.glyphRuns();
    result.ascent_ = line.ascent();
    result.descent_ = line.descent();
    // Letter spacing follows every letter, the last one too; a right-aligned caption must
    // end at its last letter.
    const double trailing = text.isEmpty() ? 0 : letterSpacing;
    result.width_ = std::max(0.0, line.naturalTextWidth() - trailing);
    return result;
}

void TextLine::draw(QPainter& painter, QPointF baselineStart) const
{
    if (runs_.isEmpty())
        return;
    painter.setPen(color_);
    // The runs were laid out with the line's top at y = 0, so the baseline is one ascent down.
    const QPointF origin(baselineStart.x(), baselineStart.y() - ascent_);
    for (const QGlyphRun& run : runs_)
        painter.drawGlyphRun(origin, run);
}

} // namespace orvane
