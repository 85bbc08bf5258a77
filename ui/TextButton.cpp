#include "ui/TextButton.h"

#include "ui/Palette.h"
#include "ui/Typography.h"

#include <QFontMetricsF>
#include <QPainter>

#include <cmath>

TextButton::TextButton(const QString &text, QWidget *parent)
    : FocusableButton(parent)
    , m_color(Palette::secondaryText())
{
    setText(text);
    setFont(Typography::footnote());
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void TextButton::setColor(const QColor &color)
{
    if (m_color == color)
        return;
    m_color = color;
    update();
}

void TextButton::setUnderlined(bool underlined)
{
    QFont font = this->font();
    font.setUnderline(underlined);
    setFont(font);
}

QSize TextButton::sizeHint() const
{
    const QFontMetricsF metrics(font());
    return QSize(static_cast<int>(std::ceil(metrics.horizontalAdvance(text()))) + 2 * margin,
        static_cast<int>(std::ceil(metrics.height())) + 2 * margin);
}

void TextButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (showsFocusRing()) {
        painter.setPen(QPen(Palette::focusRing(), 2));
        painter.setBrush(Qt::NoBrush);
        painter.drawRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), 4, 4);
    }
    painter.setOpacity(isDown() ? pressedOpacity : 1.0);
    painter.setPen(m_color);
    painter.setFont(font());
    painter.drawText(rect(), Qt::AlignCenter | Qt::TextSingleLine, text());
}
