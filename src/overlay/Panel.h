#pragma once

#include "overlay/OverlayPart.h"
#include "overlay/TextLine.h"

#include <QSizeF>

#include <variant>
#include <vector>

namespace orvane {

// One block of the overlay: stacked elements on a rounded background. Built from the content
// by the renderer; sizes in pixels. A plain value; any thread.
struct Panel {
    // One line.
    struct Text {
        TextLine line;
    };
    // Two lines on one baseline, `gap` pixels apart: a caption and its value.
    struct Pair {
        TextLine first;
        TextLine second;
        double gap = 0;
    };
    // The recording indicator: a red dot, then the line.
    struct Record {
        TextLine line;
        double dotDiameter = 0;
        double textOffset = 0; // from the dot's left edge to the text
    };
    // A stack of progress rows, each `rowHeight` high, `rowSpacing` apart.
    struct Parts {
        std::vector<OverlayPart> parts;
        double rowHeight = 0;
        double rowSpacing = 0;
    };
    // Vertical space.
    struct Gap {
        double height = 0;
    };
    using Element = std::variant<Text, Pair, Record, Parts, Gap>;

    enum class Alignment {
        leading,  // every element starts at the left edge
        trailing, // every element ends at the right edge
    };

    std::vector<Element> elements;
    Alignment alignment = Alignment::leading;
    QSizeF padding;          // between the background's edge and the content
    double lineSpacing = 0;  // added between consecutive elements (not before a gap)
    double contentWidth = 0; // the content column; part rows are this wide
    QSizeF size;             // outer size, padding included

    static double width(const Element& element);
    static double height(const Element& element);

    // Sets contentWidth (the widest element, at least `minimumContentWidth`, but never more
    // than `maximumContentWidth`) and size from the elements and padding.
    void measure(double minimumContentWidth, double maximumContentWidth);
};

} // namespace orvane
