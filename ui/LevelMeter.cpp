#include "ui/LevelMeter.h"

#include "ui/Palette.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>
#include <cmath>
#include <mutex>

namespace {

constexpr double floorDb = -50;

// What assistive technology reads: a level indicator with a value, read only.
class AccessibleLevelMeter final : public QAccessibleWidget, public QAccessibleValueInterface
{
public:
    explicit AccessibleLevelMeter(LevelMeter *meter)
        : QAccessibleWidget(meter, QAccessible::ProgressBar)
    { }

    void *interface_cast(QAccessible::InterfaceType type) override
    {
        if (type == QAccessible::ValueInterface)
            return static_cast<QAccessibleValueInterface *>(this);
        return QAccessibleWidget::interface_cast(type);
    }

    QVariant currentValue() const override { return meter()->percent(); }
    void setCurrentValue(const QVariant &) override { } // a meter is not set by the user
    QVariant maximumValue() const override { return 100; }
    QVariant minimumValue() const override { return 0; }
    QVariant minimumStepSize() const override { return 1; }

private:
    [[nodiscard]] LevelMeter *meter() const { return static_cast<LevelMeter *>(widget()); }
};

QAccessibleInterface *accessibleLevelMeter(const QString &className, QObject *object)
{
    if (className == QLatin1String("LevelMeter") && object && object->isWidgetType())
        return new AccessibleLevelMeter(static_cast<LevelMeter *>(object));
    return nullptr;
}

} // namespace

LevelMeter::LevelMeter(QWidget *parent)
    : QWidget(parent)
{
    // Qt finds accessible interfaces through factories it keeps for the process.
    static std::once_flag installed;
    std::call_once(installed, [] { QAccessible::installFactory(accessibleLevelMeter); });
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

int LevelMeter::percent() const
{
    return static_cast<int>(std::lround(m_level * 100));
}

double LevelMeter::position(double level)
{
    if (level <= 0)
        return 0;
    return std::clamp((20 * std::log10(level) - floorDb) / -floorDb, 0.0, 1.0);
}

void LevelMeter::setLevel(double level)
{
    level = std::clamp(level, 0.0, 1.0);
    const auto now = std::chrono::steady_clock::now();
    if (level >= m_peak || now - m_peakAt > peakHold) {
        m_peak = level;
        m_peakAt = now;
    }
    if (level == m_level)
        return;
    const int before = percent();
    m_level = level;
    update();
    if (percent() != before && QAccessible::isActive()) {
        QAccessibleValueChangeEvent event(this, percent());
        QAccessible::updateAccessibility(&event);
    }
}

void LevelMeter::setDimmed(bool dimmed)
{
    if (m_dimmed == dimmed)
        return;
    m_dimmed = dimmed;
    update();
}

void LevelMeter::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setOpacity(m_dimmed ? dimmedOpacity : 1.0);
    const QRectF track = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    const qreal radius = track.height() / 2;
    QPainterPath pill;
    pill.addRoundedRect(track, radius, radius);
    painter.fillPath(pill, Palette::black(0.07f));
    painter.setClipPath(pill);
    const qreal filled = track.width() * position(m_level);
    if (filled > 0) {
        QPainterPath bar;
        // At least a circle, so that a faint level still reads as a pill.
        bar.addRoundedRect(
            QRectF(track.left(), track.top(), std::max(filled, track.height()), track.height()), radius,
            radius);
        painter.fillPath(bar, Palette::black(0.32f));
    }
    const qreal peak = track.width() * position(m_peak);
    if (peak > filled + 1) {
        const qreal width = 2;
        painter.fillRect(
            QRectF(track.left() + peak - width, track.top(), width, track.height()), Palette::black(0.45f));
    }
}
