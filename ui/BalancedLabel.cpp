#include "ui/BalancedLabel.h"

#include "ui/WrappedText.h"

#include <QPainter>

#include <algorithm>
#include <cmath>

BalancedLabel::BalancedLabel(const QString &text, QWidget *parent)
    : QLabel(text, parent)
{
    setTextFormat(Qt::PlainText);
    setAlignment(Qt::AlignCenter);
    QSizePolicy policy(QSizePolicy::Preferred, QSizePolicy::Preferred);
    policy.setHeightForWidth(true);
    setSizePolicy(policy);
}

void BalancedLabel::setColor(const QColor &color)
{
    QPalette palette = this->palette();
    palette.setColor(QPalette::WindowText, color);
    setPalette(palette);
}

Balanced::Fit BalancedLabel::fitFor(qreal width) const
{
    const WrappedText wrapped(text(), font());
    return Balanced::fit(width, [&wrapped](qreal w) { return wrapped.measure(w); });
}

QSize BalancedLabel::sizeHint() const
{
    // Unconstrained, the text would take one line per paragraph; the layout
    // then narrows the label to what it is given and asks heightForWidth.
    const QSizeF natural = WrappedText(text(), font()).measure(QWIDGETSIZE_MAX);
    const QMargins margins = contentsMargins();
    return QSize(static_cast<int>(std::ceil(natural.width())) + margins.left() + margins.right(),
        static_cast<int>(std::ceil(natural.height())) + margins.top() + margins.bottom());
}

QSize BalancedLabel::minimumSizeHint() const
{
    // Any width will do: narrower widths wrap into more lines, and layouts
    // ask heightForWidth for the height they need at the width they give.
    const QMargins margins = contentsMargins();
    return QSize(margins.left() + margins.right(), heightForWidth(sizeHint().width()));
}

int BalancedLabel::heightForWidth(int width) const
{
    const QMargins margins = contentsMargins();
    const qreal inner = std::max(0, width - margins.left() - margins.right());
    const QSizeF size = fitFor(inner).size;
    return static_cast<int>(std::ceil(size.height())) + margins.top() + margins.bottom();
}

void BalancedLabel::paintEvent(QPaintEvent *)
{
    const QRectF area = contentsRect();
    const Balanced::Fit fit = fitFor(area.width());
    QPainter painter(this);
    painter.setRenderHint(QPainter::TextAntialiasing);
    painter.setPen(palette().color(isEnabled() ? QPalette::Active : QPalette::Disabled, foregroundRole()));
    WrappedText(text(), font()).draw(painter, area, fit.width);
}
