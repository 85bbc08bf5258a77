#pragma once

#include <QWidget>

// A container framed by a rounded rectangle stroked inside its bounds: the
// permissions box (radius 14, a 1-point line of black at 0.1). Give it a
// layout for its content; cap its width with setMaximumWidth(320).
class OutlinedBox : public QWidget
{
    Q_OBJECT
public:
    static constexpr qreal radius = 14;
    static constexpr qreal lineWidth = 1;

    explicit OutlinedBox(QWidget *parent = nullptr);

protected:
    void paintEvent(QPaintEvent *event) override;
};
