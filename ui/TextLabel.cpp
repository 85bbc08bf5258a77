#include "ui/TextLabel.h"

TextLabel::TextLabel(const QString &text, const QFont &font, const QColor &color, QWidget *parent)
    : QLabel(text, parent)
{
    setTextFormat(Qt::PlainText);
    setAlignment(Qt::AlignCenter);
    setFont(font);
    setColor(color);
}

void TextLabel::setColor(const QColor &color)
{
    QPalette palette = this->palette();
    palette.setColor(QPalette::WindowText, color);
    setPalette(palette);
}

QColor TextLabel::color() const
{
    return palette().color(QPalette::WindowText);
}
