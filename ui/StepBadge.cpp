#include "ui/StepBadge.h"

#include "ui/Palette.h"
#include "ui/SymbolIcon.h"
#include "ui/Typography.h"

#include <QPainter>

StepBadge::StepBadge(qint64 number, QWidget *parent)
    : QWidget(parent)
    , m_number(number)
{
    setFixedSize(side, side);
}

void StepBadge::setDone(bool done)
{
    if (m_done == done)
        return;
    m_done = done;
    update();
}

void StepBadge::setOpacity(qreal opacity)
{
    if (qFuzzyCompare(m_opacity, opacity))
        return;
    m_opacity = opacity;
    update();
}

void StepBadge::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setOpacity(m_opacity);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(m_done ? Palette::systemGreen() : Palette::badgeFill());
    const QRectF disc(0, 0, side, side);
    painter.drawEllipse(disc);
    if (m_done) {
        // A bold 12-point check is about as wide as the theme's check drawn
        // in a 14-point box (its glyph leaves a margin inside the box).
        constexpr qreal check = 14;
        const QRectF box(disc.center() - QPointF(check / 2, check / 2), QSizeF(check, check));
        SymbolIcon::paint(painter, Symbol::checkmark, box, Palette::white());
        return;
    }
    painter.setPen(Palette::primaryText());
    painter.setFont(Typography::system(12, QFont::DemiBold));
    painter.drawText(disc, Qt::AlignCenter, QString::asprintf("%lld", m_number));
}
