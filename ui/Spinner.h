#pragma once

#include <QColor>
#include <QVariantAnimation>
#include <QWidget>

// An indeterminate progress indicator: twelve spokes around a centre, the
// brightest one stepping round once a second with a fading tail. It turns
// only while visible.
class Spinner : public QWidget
{
    Q_OBJECT
public:
    enum class ControlSize : quint8 { small, regular, large };

    explicit Spinner(ControlSize size = ControlSize::regular, QWidget *parent = nullptr);

    void setControlSize(ControlSize size);
    [[nodiscard]] ControlSize controlSize() const { return m_size; }
    // Side of the square it draws in: 16, 32 or 40 points.
    [[nodiscard]] static int extent(ControlSize size);

    void setColor(const QColor &color);

    // The spoke drawn brightest, 0 at twelve o'clock, clockwise.
    [[nodiscard]] int head() const { return m_head; }
    void setHead(int head);

    [[nodiscard]] bool isSpinning() const { return m_animation.state() == QAbstractAnimation::Running; }

    static constexpr int spokes = 12;
    static constexpr int turnMs = 1000;

    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    ControlSize m_size;
    QColor m_color;
    int m_head = 0;
    QVariantAnimation m_animation;
};
