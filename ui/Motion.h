#pragma once

#include <QEasingCurve>
#include <QPointF>

// The timing curves and durations of the screens' animations. The curves are
// the classic cubic Béziers, so an "ease-out of 0.12 s" here moves exactly as
// it does in the design.
class Motion
{
public:
    // Pressed feedback of the pill buttons.
    static constexpr int pressMs = 120;
    // State changes inside a screen (controls, status line, permission rows, the code swap).
    static constexpr int stateMs = 250;
    // The fade between the pairing and the recorder screen.
    static constexpr int screenMs = 300;

    // cubic-bezier(0, 0, 0.58, 1)
    static QEasingCurve easeOut() { return bezier(0.0, 0.0, 0.58, 1.0); }
    // cubic-bezier(0.42, 0, 0.58, 1)
    static QEasingCurve easeInOut() { return bezier(0.42, 0.0, 0.58, 1.0); }

private:
    static QEasingCurve bezier(qreal x1, qreal y1, qreal x2, qreal y2)
    {
        QEasingCurve curve(QEasingCurve::BezierSpline);
        curve.addCubicBezierSegment(QPointF(x1, y1), QPointF(x2, y2), QPointF(1.0, 1.0));
        return curve;
    }
};
