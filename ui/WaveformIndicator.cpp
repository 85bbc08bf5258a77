#include "ui/WaveformIndicator.h"

#include "ui/Palette.h"

#include <QFontMetricsF>
#include <QPainter>

#include <cmath>
#include <iterator>

WaveformIndicator::WaveformIndicator(QWidget *parent)
    : QWidget(parent)
    , m_color(Palette::secondaryText())
{
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    m_animation.setStartValue(0.0);
    m_animation.setEndValue(static_cast<qreal>(barCount));
    m_animation.setDuration(cycleMs);
    m_animation.setLoopCount(-1);
    connect(&m_animation, &QVariantAnimation::valueChanged, this,
        [this](const QVariant &value) { setPhase(value.toReal()); });
}

void WaveformIndicator::setColor(const QColor &color)
{
    if (m_color == color)
        return;
    m_color = color;
    update();
}

void WaveformIndicator::setRunning(bool running)
{
    if (m_running == running)
        return;
    m_running = running;
    updateAnimation();
    update();
}

void WaveformIndicator::setPhase(qreal phase)
{
    phase = std::fmod(phase, static_cast<qreal>(barCount));
    if (phase < 0)
        phase += barCount;
    if (qFuzzyCompare(1.0 + m_phase, 1.0 + phase))
        return;
    m_phase = phase;
    update();
}

qreal WaveformIndicator::barOpacity(int index) const
{
    if (!m_running)
        return 1.0;
    // The lit bar is at full strength; the one it just left fades over about
    // one and a half bars, so the highlight reads as moving, not blinking.
    qreal behind = m_phase - index;
    if (behind < 0)
        behind += barCount;
    const qreal fade = std::max(0.0, 1.0 - behind / 1.5);
    return dimmedOpacity + (1.0 - dimmedOpacity) * fade;
}

QList<QRectF> WaveformIndicator::bars(const QRectF &rect)
{
    // Heights as parts of the glyph's height, tallest near the middle, as the
    // classic waveform glyph.
    static constexpr qreal heights[barCount] = { 0.28, 0.55, 0.9, 0.62, 0.76, 0.42, 0.22 };
    const qreal pitch = rect.width() / barCount;
    const qreal width = pitch * 0.62;
    QList<QRectF> result;
    for (int i = 0; i < barCount; ++i) {
        const qreal height = rect.height() * heights[i];
        result.append(QRectF(
            rect.left() + i * pitch + (pitch - width) / 2, rect.center().y() - height / 2, width, height));
    }
    return result;
}

QSize WaveformIndicator::sizeHint() const
{
    const qreal height = QFontMetricsF(font()).height();
    return QSize(static_cast<int>(std::ceil(height * 1.3)), static_cast<int>(std::ceil(height)));
}

void WaveformIndicator::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    // A glyph box a little taller than the font's capitals and wider than
    // tall, centred in the widget so it sits on the text line beside it.
    const qreal glyphHeight = std::min<qreal>(height(), QFontMetricsF(font()).ascent() * 1.15);
    const QRectF box(QPointF(0, (height() - glyphHeight) / 2), QSizeF(width(), glyphHeight));
    const QList<QRectF> glyph = bars(box);
    for (int i = 0; i < glyph.size(); ++i) {
        QColor colour = m_color;
        colour.setAlphaF(static_cast<float>(m_color.alphaF() * barOpacity(i)));
        painter.setBrush(colour);
        painter.drawRoundedRect(glyph[i], glyph[i].width() / 2, glyph[i].width() / 2);
    }
}

void WaveformIndicator::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    updateAnimation();
}

void WaveformIndicator::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    updateAnimation();
}

void WaveformIndicator::updateAnimation()
{
    const bool animate = m_running && isVisible();
    if (animate && m_animation.state() != QAbstractAnimation::Running)
        m_animation.start();
    else if (!animate)
        m_animation.stop();
}
