#pragma once

#include <QLabel>

// A plain-text label in one of the screens' text styles: a font and a colour,
// centred. The screens' fixed lines (titles, the footer, the status texts) are
// made of these.
class TextLabel : public QLabel
{
    Q_OBJECT
public:
    TextLabel(const QString &text, const QFont &font, const QColor &color, QWidget *parent = nullptr);

    // The text colour (the palette's WindowText).
    void setColor(const QColor &color);
    [[nodiscard]] QColor color() const;
};
