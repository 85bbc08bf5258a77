#pragma once

#include <QWidget>

// The 24 × 24 circular badge in front of a permission row: the step's number
// on a faint disc while the step is open, a white check on green once done.
class StepBadge : public QWidget
{
    Q_OBJECT
public:
    static constexpr int side = 24;

    explicit StepBadge(qint64 number, QWidget *parent = nullptr);

    void setDone(bool done);
    [[nodiscard]] bool isDone() const { return m_done; }
    [[nodiscard]] qint64 number() const { return m_number; }

    // The whole badge drawn at `opacity` (a dimmed permission row). Painted, not a
    // graphics effect, so that it stays crisp when rendered at 2x.
    void setOpacity(qreal opacity);
    [[nodiscard]] qreal opacity() const { return m_opacity; }

    [[nodiscard]] QSize sizeHint() const override { return QSize(side, side); }
    [[nodiscard]] QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    qint64 m_number;
    bool m_done = false;
    qreal m_opacity = 1;
};
