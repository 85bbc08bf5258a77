#include "ui/SymbolView.h"

#include "ui/SymbolIcon.h"

#include <QPainter>

#include <cmath>

SymbolView::SymbolView(Symbol symbol, qreal extent, const QColor &color, QWidget *parent)
    : QWidget(parent)
    , m_symbol(symbol)
    , m_extent(extent)
    , m_color(color)
{
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void SymbolView::setSymbol(Symbol symbol)
{
    if (m_symbol == symbol)
        return;
    m_symbol = symbol;
    update();
}

void SymbolView::setColor(const QColor &color)
{
    if (m_color == color)
        return;
    m_color = color;
    update();
}

void SymbolView::setExtent(qreal extent)
{
    if (qFuzzyCompare(m_extent, extent))
        return;
    m_extent = extent;
    updateGeometry();
    update();
}

QSize SymbolView::sizeHint() const
{
    const int side = static_cast<int>(std::ceil(m_extent));
    return QSize(side, side);
}

void SymbolView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    const QRectF box(
        QPointF((width() - m_extent) / 2, (height() - m_extent) / 2), QSizeF(m_extent, m_extent));
    SymbolIcon::paint(painter, m_symbol, box, m_color);
}
