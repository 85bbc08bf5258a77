#pragma once

#include <QColor>
#include <QFont>
#include <QtGlobal>

// The look of every action button: a capsule in one of four colour kinds and
// two sizes. A value type; PillButton paints with it.
struct PillButtonStyle
{
    enum class Kind : quint8 { primary, secondary, record, destructive };
    enum class Size : quint8 { regular, small };

    Kind kind = Kind::primary;
    Size size = Size::regular;
    // Stretches to all the width offered (rows of equal buttons).
    bool fillsWidth = false;
    // A lone main action: at least minimumSoloWidth wide.
    bool solo = false;

    static constexpr qreal minimumSoloWidth = 180;
    static constexpr qreal pressedOpacity = 0.7;
    static constexpr qreal pressedScale = 0.98;

    // Semibold system font, 14 regular / 13 small.
    [[nodiscard]] QFont font() const;
    // How far the title may shrink to fit a narrow column: 0.75 when
    // fillsWidth, 1.0 (not at all) otherwise.
    [[nodiscard]] qreal minimumScaleFactor() const { return fillsWidth ? 0.75 : 1.0; }
    // 18 regular / 14 small, but 12 whenever fillsWidth.
    [[nodiscard]] qreal horizontalPadding() const;
    // 12 regular / 7 small.
    [[nodiscard]] qreal verticalPadding() const { return size == Size::regular ? 12 : 7; }
    // minimumSoloWidth when solo, else 0.
    [[nodiscard]] qreal minimumWidth() const { return solo ? minimumSoloWidth : 0; }

    [[nodiscard]] QColor labelColor() const;
    [[nodiscard]] QColor fillColor() const;

    bool operator==(const PillButtonStyle &) const = default;
};
