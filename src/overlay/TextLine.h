#pragma once

#include <QColor>
#include <QFont>
#include <QGlyphRun>
#include <QList>
#include <QPointF>
#include <QString>

class QPainter;

namespace orvane {

// One line of text, shaped once and drawn as glyph runs: no shaping happens at draw time.
// Sizes in pixels. A plain value (its runs are shared, so copies are cheap); any thread.
class TextLine {
public:
    TextLine() = default;
    // Shapes `text` in `font` (whose pixel size is already set), drawn in `color`, with
    // `letterSpacing` pixels added between letters (not after the last one).
    static TextLine make(const QString& text, const QFont& font, const QColor& color,
                         double letterSpacing = 0);

    // Draws the line with the left end of its baseline at `baselineStart`.
    void draw(QPainter& painter, QPointF baselineStart) const;

    double width() const { return width_; }
    double ascent() const { return ascent_; }
    double descent() const { return descent_; }
    double height() const { return ascent_ + descent_; }
    const QString& text() const { return text_; }
    const QColor& color() const { return color_; }
    bool isEmpty() const { return text_.isEmpty(); }

private:
    QString text_;
    QList<QGlyphRun> runs_;
    QColor color_;
    double width_ = 0;
    double ascent_ = 0;
    double descent_ = 0;
};

} // namespace orvane
