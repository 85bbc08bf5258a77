#include "ui/Spinner.h"

#include "ui/Palette.h"

#include <QPainter>

Spinner::Spinner(ControlSize size, QWidget *parent)
    : QWidget(parent)
    , m_size(size)
    , m_color(Palette::black(0.7f))
{
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    // Integer steps, like the platform spinners: the spokes jump, they do not glide.
    m_animation.setStartValue(0);
    m_animation.setEndValue(spokes);
    m_animation.setDuration(turnMs);
    m_animation.setLoopCount(-1);
    connect(&m_animation, &QVariantAnimation::valueChanged, this,
        [this](const QVariant &value) { setHead(value.toInt() % spokes); });
    setAccessibleName(tr("In progress"));
}

int Spinner::extent(ControlSize size)
{
    switch (size) {
    case ControlSize::small:
        return 16;
    case ControlSize::regular:
        return 32;
    case ControlSize::large:
        return 40;
    }
    Q_UNREACHABLE();
}

void Spinner::setControlSize(ControlSize size)
{
    if (m_size == size)
        return;
    m_size = size;
    updateGeometry();
    update();
}

void Spinner::setColor(const QColor &color)
{
    m_color = color;
    update();
}

void Spinner::setHead(int head)
{
    if (m_head == head)
        return;
    m_head = head;
    update();
}

QSize Spinner::sizeHint() const
{
    return QSize(extent(m_size), extent(m_size));
}

void Spinner::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const qreal side = std::min(width(), height());
    const qreal outer = side / 2;
    const qreal inner = outer * 0.5;
    const qreal thickness = side * 0.085;
    painter.translate(width() / 2.0, height() / 2.0);
    for (int i = 0; i < spokes; ++i) {
        // The head at full strength, each spoke behind it a step fainter.
        const int behind = (m_head - i + spokes) % spokes;
        QColor colour = m_color;
        colour.setAlphaF(static_cast<float>(m_color.alphaF() * (1.0 - 0.75 * behind / (spokes - 1))));
        painter.save();
        painter.rotate(360.0 * i / spokes);
        painter.setPen(QPen(colour, thickness, Qt::SolidLine, Qt::RoundCap));
        painter.drawLine(QPointF(0, -inner), QPointF(0, -(outer - thickness / 2)));
        painter.restore();
    }
}

void Spinner::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    m_animation.start();
}

void Spinner::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    m_animation.stop();
}
