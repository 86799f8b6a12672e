#include "overlay/Panel.h"

#include <algorithm>

namespace orvane {

namespace {

template <class... Ts> struct Overloaded : Ts... {
    using Ts::operator()...;
};
template <class... Ts> Overloaded(Ts...) -> Overloaded<Ts...>;

} // namespace

double Panel::width(const Element& element)
{
    return std::visit(
        Overloaded{
            [](const Text& text) { return text.line.width(); },
            [](const Pair& pair) { return pair.first.width() + pair.gap + pair.second.width(); },
            [](const Record& record) { return record.textOffset + record.line.width(); },
            [](const Parts&) { return 0.0; }, // as wide as the content column
            [](const Gap&) { return 0.0; },
        },
        element);
}

double Panel::height(const Element& element)
{
    return std::visit(Overloaded{
                          [](const Text& text) { return text.line.height(); },
                          [](const Pair& pair) {
                              return std::max(pair.first.ascent(), pair.second.ascent()) +
                                     std::max(pair.first.descent(), pair.second.descent());
                          },
                          [](const Record& record) { return record.line.height(); },
                          [](const Parts& parts) {
                              const auto count = static_cast<double>(parts.parts.size());
                              if (count == 0)
                                  return 0.0;
                              return count * parts.rowHeight + (count - 1) * parts.rowSpacing;
                          },
                          [](const Gap& gap) { return gap.height; },
                      },
                      element);
}

void Panel::measure(double minimumContentWidth, double maximumContentWidth)
{
    double widest = minimumContentWidth;
    double tall = 0;
    bool first = true;
    for (const Element& element : elements) {
        widest = std::max(widest, width(element));
        // A gap stands instead of the line spacing before it.
        if (!first && !std::holds_alternative<Gap>(element))
            tall += lineSpacing;
        tall += height(element);
        first = false;
    }
    contentWidth = std::min(widest, maximumContentWidth);
    size = QSizeF(contentWidth + 2 * padding.width(), tall + 2 * padding.height());
}

} // namespace orvane
