#pragma once

#include <QFont>
#include <QSizeF>
#include <QString>
#include <QStringList>

class QPainter;
class QRectF;

// Plain text wrapped to a width with QTextLayout: at word boundaries, and
// inside a word only when the word alone is wider than the line. Measuring and
// drawing share one layout routine, so a width that measured as N lines draws
// as exactly those N lines. "\n" starts a new line; U+00A0 never breaks.
class WrappedText
{
public:
    WrappedText(QString text, QFont font);

    // The size the text takes at `width`: the widest line's natural width and
    // the lines' total height. Never cached; each call lays the text out anew.
    [[nodiscard]] QSizeF measure(qreal width) const;

    // Draws the text wrapped at `width`, each line centred horizontally, the
    // block centred in `rect`. The painter's pen gives the colour.
    void draw(QPainter &painter, const QRectF &rect, qreal width) const;

    // The text of each line at `width`, for checks and diagnostics.
    [[nodiscard]] QStringList lines(qreal width) const;

private:
    QString m_text;
    QFont m_font;
};
