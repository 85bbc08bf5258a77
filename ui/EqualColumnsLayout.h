#pragma once

#include <QLayout>

#include <vector>

// A row of columns of exactly equal width, some of which may stay empty. The
// recorder's control rows are built on it: "Pause" alone in the middle of
// three columns sits exactly where "Resume" sits among Discard, Resume and
// Save, so the button under the pointer does not move when the user pauses.
// (QHBoxLayout and QGridLayout share space out by size hints first, which
// makes a lone middle button wider than its neighbours would be.)
//
// Widgets that expand horizontally fill their column; others keep their size
// hint and are centred in it. Spacing defaults to 10.
class EqualColumnsLayout : public QLayout
{
    Q_OBJECT
public:
    explicit EqualColumnsLayout(int columns, QWidget *parent = nullptr);
    ~EqualColumnsLayout() override;

    [[nodiscard]] int columnCount() const { return static_cast<int>(m_cells.size()); }

    // Puts `widget` into `column`, replacing (and deleting the layout item of)
    // what was there; nullptr empties the column.
    void setWidget(int column, QWidget *widget);
    [[nodiscard]] QWidget *widgetAt(int column) const;

    // The geometry column `column` gets inside `rect`.
    [[nodiscard]] QRect cellRect(const QRect &rect, int column) const;

    // QLayout
    void addItem(QLayoutItem *item) override; // into the first empty column
    [[nodiscard]] QLayoutItem *itemAt(int index) const override;
    QLayoutItem *takeAt(int index) override;
    [[nodiscard]] int count() const override;
    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSize() const override;
    void setGeometry(const QRect &rect) override;
    [[nodiscard]] Qt::Orientations expandingDirections() const override { return Qt::Horizontal; }

private:
    [[nodiscard]] int columnOf(int index) const;
    [[nodiscard]] QSize across(QSize (QLayoutItem::*measure)() const) const;

    std::vector<QLayoutItem *> m_cells;
};
