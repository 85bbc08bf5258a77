#pragma once

#include <QColor>
#include <QImage>

class QPainter;
class QWidget;

// Off-screen rendering of widgets, and the pixel ratio painting really targets.
class Rendering
{
public:
    // The device pixel ratio of the surface a painter draws on. When a widget
    // is rendered into a 2x image with QWidget::render, its paint event's
    // painter still reports the widget (1x) as its device; the paint engine
    // knows the image. Custom painting that snaps to pixels or rasterises
    // (icons, QR modules) asks here.
    [[nodiscard]] static qreal devicePixelRatio(const QPainter &painter);

    // `widget` (polished, its layouts settled) rendered at `devicePixelRatio`
    // onto `background`. Works with no display (offscreen platform) and on a
    // widget that was never shown.
    [[nodiscard]] static QImage toImage(QWidget &widget, qreal devicePixelRatio, const QColor &background);
};
