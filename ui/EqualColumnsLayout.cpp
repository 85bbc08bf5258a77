#include "ui/EqualColumnsLayout.h"

#include <QWidget>

#include <algorithm>
#include <cmath>
#include <utility>

EqualColumnsLayout::EqualColumnsLayout(int columns, QWidget *parent)
    : QLayout(parent)
    , m_cells(static_cast<size_t>(std::max(1, columns)), nullptr)
{
    setSpacing(10);
    setContentsMargins(0, 0, 0, 0);
}

EqualColumnsLayout::~EqualColumnsLayout()
{
    for (QLayoutItem *item : m_cells)
        delete item;
}

void EqualColumnsLayout::setWidget(int column, QWidget *widget)
{
    Q_ASSERT(column >= 0 && column < columnCount());
    QLayoutItem *&cell = m_cells[static_cast<size_t>(column)];
    if (cell && cell->widget() == widget)
        return;
    delete cell;
    cell = nullptr;
    if (widget) {
        addChildWidget(widget);
        cell = new QWidgetItem(widget);
    }
    invalidate();
}

QWidget *EqualColumnsLayout::widgetAt(int column) const
{
    const QLayoutItem *cell = m_cells.at(static_cast<size_t>(column));
    return cell ? cell->widget() : nullptr;
}

void EqualColumnsLayout::addItem(QLayoutItem *item)
{
    const auto empty = std::find(m_cells.begin(), m_cells.end(), nullptr);
    if (empty == m_cells.end()) {
        qWarning("EqualColumnsLayout: no empty column left; item dropped");
        delete item;
        return;
    }
    *empty = item;
    invalidate();
}

int EqualColumnsLayout::columnOf(int index) const
{
    // Items are numbered over the occupied columns only, as QLayout expects.
    for (int column = 0, seen = 0; column < columnCount(); ++column) {
        if (m_cells[static_cast<size_t>(column)] && seen++ == index)
            return column;
    }
    return -1;
}

QLayoutItem *EqualColumnsLayout::itemAt(int index) const
{
    const int column = columnOf(index);
    return column < 0 ? nullptr : m_cells[static_cast<size_t>(column)];
}

QLayoutItem *EqualColumnsLayout::takeAt(int index)
{
    const int column = columnOf(index);
    if (column < 0)
        return nullptr;
    QLayoutItem *item = std::exchange(m_cells[static_cast<size_t>(column)], nullptr);
    invalidate();
    return item;
}

int EqualColumnsLayout::count() const
{
    return static_cast<int>(std::count_if(m_cells.begin(), m_cells.end(), [](QLayoutItem *i) { return i; }));
}

QSize EqualColumnsLayout::across(QSize (QLayoutItem::*measure)() const) const
{
    // Every column as wide as the widest need, so no column is squeezed.
    QSize widest(0, 0);
    for (const QLayoutItem *item : m_cells) {
        if (item && !item->isEmpty())
            widest = widest.expandedTo((item->*measure)());
    }
    const QMargins margins = contentsMargins();
    return QSize(
        widest.width() * columnCount() + spacing() * (columnCount() - 1) + margins.left() + margins.right(),
        widest.height() + margins.top() + margins.bottom());
}

QSize EqualColumnsLayout::sizeHint() const
{
    return across(&QLayoutItem::sizeHint);
}

QSize EqualColumnsLayout::minimumSize() const
{
    return across(&QLayoutItem::minimumSize);
}

QRect EqualColumnsLayout::cellRect(const QRect &rect, int column) const
{
    const QRect inner = rect.marginsRemoved(contentsMargins());
    const qreal width = (inner.width() - spacing() * (columnCount() - 1)) / static_cast<qreal>(columnCount());
    // Edges are rounded from exact positions, so columns differ by at most a pixel.
    const int left = inner.left() + static_cast<int>(std::lround(column * (width + spacing())));
    const int right = inner.left() + static_cast<int>(std::lround(column * (width + spacing()) + width));
    return QRect(left, inner.top(), right - left, inner.height());
}

void EqualColumnsLayout::setGeometry(const QRect &rect)
{
    QLayout::setGeometry(rect);
    for (int column = 0; column < columnCount(); ++column) {
        QLayoutItem *item = m_cells[static_cast<size_t>(column)];
        if (!item)
            continue;
        const QRect cell = cellRect(rect, column);
        const QSize hint = item->sizeHint();
        const bool fills = item->expandingDirections() & Qt::Horizontal;
        const int w = fills ? cell.width() : std::min(hint.width(), cell.width());
        const int h = std::min(hint.height(), cell.height());
        item->setGeometry(
            QRect(cell.left() + (cell.width() - w) / 2, cell.top() + (cell.height() - h) / 2, w, h));
    }
}
