#pragma once

#include "ui/Symbol.h"

#include <QColor>
#include <QWidget>

// One symbol as a widget, for rows such as the "sent" status line
// ([symbol] [text]) and the permission badges. It paints through SymbolIcon at
// the pixel ratio it is really drawn at, so it stays crisp in 2x snapshots,
// where a QLabel's pixmap would have been made for the 1x widget.
class SymbolView : public QWidget
{
    Q_OBJECT
public:
    explicit SymbolView(Symbol symbol, qreal extent, const QColor &color, QWidget *parent = nullptr);

    void setSymbol(Symbol symbol);
    [[nodiscard]] Symbol symbol() const { return m_symbol; }
    void setColor(const QColor &color);
    [[nodiscard]] QColor color() const { return m_color; }
    // Side of the square, in points.
    void setExtent(qreal extent);
    [[nodiscard]] qreal extent() const { return m_extent; }

    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    Symbol m_symbol;
    qreal m_extent;
    QColor m_color;
};
