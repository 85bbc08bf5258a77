#include "ui/PillButton.h"

#include "ui/Motion.h"
#include "ui/Palette.h"
#include "ui/SymbolIcon.h"

#include <QFontMetricsF>
#include <QPainter>

#include <algorithm>
#include <cmath>

namespace {

// Gap between the symbol and the title, as a standard label has it.
constexpr qreal symbolGap = 6;
constexpr qreal focusRingWidth = 2.5;

int ceilInt(qreal value)
{
    return static_cast<int>(std::ceil(value - 1e-9));
}

} // namespace

PillButton::PillButton(
    const QString &text, std::optional<Symbol> symbol, PillButtonStyle style, QWidget *parent)
    : FocusableButton(parent)
    , m_style(style)
    , m_symbol(symbol)
{
    setText(text);
    setFont(m_style.font());
    applySizePolicy();

    m_pressAnimation.setDuration(Motion::pressMs);
    m_pressAnimation.setEasingCurve(Motion::easeOut());
    connect(&m_pressAnimation, &QVariantAnimation::valueChanged, this, [this](const QVariant &value) {
        m_progress = value.toReal();
        update();
    });
    connect(this, &QAbstractButton::pressed, this, [this] { animatePressTo(1.0); });
    connect(this, &QAbstractButton::released, this, [this] { animatePressTo(0.0); });
}

void PillButton::setPillStyle(PillButtonStyle style)
{
    if (m_style == style)
        return;
    m_style = style;
    setFont(m_style.font());
    applySizePolicy();
    updateGeometry();
    update();
}

void PillButton::setSymbol(std::optional<Symbol> symbol)
{
    if (m_symbol == symbol)
        return;
    m_symbol = symbol;
    updateGeometry();
    update();
}

void PillButton::setPressedFeedback(bool enabled)
{
    if (m_pressedFeedback == enabled)
        return;
    m_pressedFeedback = enabled;
    if (!enabled) {
        m_pressAnimation.stop();
        m_progress = 0;
        update();
    }
}

void PillButton::setOpacity(qreal opacity)
{
    if (qFuzzyCompare(m_opacity, opacity))
        return;
    m_opacity = opacity;
    update();
}

qreal PillButton::currentOpacity() const
{
    return 1.0 - (1.0 - PillButtonStyle::pressedOpacity) * m_progress;
}

qreal PillButton::currentScale() const
{
    return 1.0 - (1.0 - PillButtonStyle::pressedScale) * m_progress;
}

void PillButton::animatePressTo(qreal target)
{
    if (!m_pressedFeedback)
        return;
    // Starts from wherever the look is now, so a quick tap reverses smoothly.
    m_pressAnimation.stop();
    m_pressAnimation.setStartValue(m_progress);
    m_pressAnimation.setEndValue(target);
    m_pressAnimation.start();
}

void PillButton::applySizePolicy()
{
    setSizePolicy(m_style.fillsWidth ? QSizePolicy::Expanding : QSizePolicy::Fixed, QSizePolicy::Fixed);
}

qreal PillButton::symbolExtent() const
{
    // As tall as the title's capitals and a little more, like a symbol set in text.
    return m_symbol ? std::round(QFontMetricsF(font()).ascent() * 0.95) : 0;
}

qreal PillButton::labelWidth() const
{
    const qreal title = QFontMetricsF(font()).horizontalAdvance(text());
    if (!m_symbol)
        return title;
    return symbolExtent() + (text().isEmpty() ? 0 : symbolGap + title);
}

qreal PillButton::labelScale() const
{
    const qreal available = width() - 2 * m_style.horizontalPadding();
    const qreal needed = labelWidth();
    if (needed <= available || needed <= 0)
        return 1.0;
    return std::max(m_style.minimumScaleFactor(), available / needed);
}

QSize PillButton::sizeHint() const
{
    const qreal height = QFontMetricsF(font()).height() + 2 * m_style.verticalPadding();
    const qreal width = std::max(labelWidth() + 2 * m_style.horizontalPadding(), m_style.minimumWidth());
    return QSize(ceilInt(width), ceilInt(height));
}

QSize PillButton::minimumSizeHint() const
{
    const QSize hint = sizeHint();
    if (!m_style.fillsWidth)
        return hint;
    const qreal width
        = std::max(labelWidth() * m_style.minimumScaleFactor() + 2 * m_style.horizontalPadding(),
            m_style.minimumWidth());
    return QSize(ceilInt(width), hint.height());
}

void PillButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::TextAntialiasing);

    const QRectF bounds = rect();
    const QPointF centre = bounds.center();
    painter.setOpacity(m_opacity * currentOpacity());
    painter.translate(centre);
    painter.scale(currentScale(), currentScale());
    painter.translate(-centre);

    const qreal radius = bounds.height() / 2;
    painter.setPen(Qt::NoPen);
    painter.setBrush(m_style.fillColor());
    painter.drawRoundedRect(bounds, radius, radius);

    if (showsFocusRing()) {
        const qreal inset = focusRingWidth / 2;
        const QRectF ring = bounds.adjusted(inset, inset, -inset, -inset);
        painter.setPen(QPen(Palette::focusRing(), focusRingWidth));
        painter.setBrush(Qt::NoBrush);
        painter.drawRoundedRect(ring, ring.height() / 2, ring.height() / 2);
    }

    // The label: symbol and title centred together, scaled down as a whole in
    // a narrow column and elided only when even the minimum scale is too wide.
    const qreal scale = labelScale();
    const qreal available = (width() - 2 * m_style.horizontalPadding()) / scale;
    painter.translate(centre);
    painter.scale(scale, scale);
    painter.translate(-centre);

    const QFontMetricsF metrics(font());
    const qreal symbolWidth = symbolExtent();
    const qreal gap = m_symbol && !text().isEmpty() ? symbolGap : 0;
    const QString title
        = metrics.elidedText(text(), Qt::ElideRight, std::max(0.0, available - symbolWidth - gap));
    const qreal contentWidth = symbolWidth + gap + metrics.horizontalAdvance(title);
    qreal x = centre.x() - contentWidth / 2;

    painter.setPen(m_style.labelColor());
    if (m_symbol) {
        const QRectF box(x, centre.y() - symbolWidth / 2, symbolWidth, symbolWidth);
        SymbolIcon::paint(painter, *m_symbol, box, m_style.labelColor());
        x += symbolWidth + gap;
    }
    painter.setFont(font());
    const qreal baseline = centre.y() + (metrics.ascent() - metrics.descent()) / 2;
    painter.drawText(QPointF(x, baseline), title);
}
