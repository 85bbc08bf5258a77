#pragma once

#include <QLabel>

#include "ui/Balanced.h"

// A centred, wrapped plain-text label whose lines are balanced: the text is
// laid out at the narrowest width that keeps the line count it has at the
// label's width (see Balanced). It stays a QLabel for the palette, the font
// and accessibility (role static text, name = the text); only its sizing and
// painting are its own. Rich text and text selection are not supported.
class BalancedLabel : public QLabel
{
    Q_OBJECT
public:
    explicit BalancedLabel(const QString &text = {}, QWidget *parent = nullptr);

    // Sets the text colour (the palette's WindowText).
    void setColor(const QColor &color);

    // The balanced layout of the current text at `width`.
    [[nodiscard]] Balanced::Fit fitFor(qreal width) const;

    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSizeHint() const override;
    [[nodiscard]] bool hasHeightForWidth() const override { return true; }
    [[nodiscard]] int heightForWidth(int width) const override;

protected:
    void paintEvent(QPaintEvent *event) override;
};
