#include "ui/OutlinedBox.h"

#include "ui/Palette.h"

#include <QPainter>

OutlinedBox::OutlinedBox(QWidget *parent)
    : QWidget(parent)
{ }

void OutlinedBox::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(Palette::boxBorder(), lineWidth));
    painter.setBrush(Qt::NoBrush);
    // Inset by half the line so the whole stroke lies inside the bounds.
    const qreal inset = lineWidth / 2;
    const QRectF frame = QRectF(rect()).adjusted(inset, inset, -inset, -inset);
    painter.drawRoundedRect(frame, radius - inset, radius - inset);
}
