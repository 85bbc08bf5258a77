#pragma once

#include <QSizeF>

#include <functional>

// Narrows a wrapped text to the smallest width that does not add a line, so
// that a message of two or three lines has lines of even length instead of a
// long line and a short last one.
//
// The search is independent of any widget: it is given a measurer that lays
// the text out at a width (height left open) and returns the size it takes,
// so it can be driven by QTextLayout, QFontMetricsF or a test double.
class Balanced
{
public:
    using Measure = std::function<QSizeF(qreal width)>;

    struct Fit
    {
        qreal width = 0; // the width to lay the text out at: the search's bound, rounded up
        QSizeF size; // what the measurer returned for that width
        int measurements = 0;
    };

    // Stop tolerance of the search, in points.
    static constexpr qreal tolerance = 0.5;

    // Measures at `proposedWidth` (natural width w0, height h0), then, when w0
    // is above the tolerance, halves [0, w0] while the interval is wider than
    // the tolerance, keeping the upper bound at widths whose height is at most
    // h0. The final width is the bound rounded up, so no glyph is ever clipped
    // and consecutive layout passes never differ by a fraction of a point.
    // About log2(w0 / 0.5) measurements; nothing is cached between calls.
    static Fit fit(qreal proposedWidth, const Measure &measure);
};
