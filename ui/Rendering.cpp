#include "ui/Rendering.h"

#include <QLayout>
#include <QPaintEngine>
#include <QPainter>
#include <QWidget>

#include <cmath>

qreal Rendering::devicePixelRatio(const QPainter &painter)
{
    if (const QPaintEngine *engine = painter.paintEngine(); engine && engine->paintDevice())
        return engine->paintDevice()->devicePixelRatio();
    return painter.device() ? painter.device()->devicePixelRatio() : 1.0;
}

namespace {

void settle(QWidget &widget)
{
    widget.ensurePolished();
    for (QWidget *child : widget.findChildren<QWidget *>())
        child->ensurePolished();
    if (QLayout *layout = widget.layout())
        layout->activate();
    for (QWidget *child : widget.findChildren<QWidget *>()) {
        if (QLayout *layout = child->layout())
            layout->activate();
    }
}

} // namespace

QImage Rendering::toImage(QWidget &widget, qreal devicePixelRatio, const QColor &background)
{
    settle(widget);
    const QSize size = widget.size();
    QImage image(static_cast<int>(std::ceil(size.width() * devicePixelRatio)),
        static_cast<int>(std::ceil(size.height() * devicePixelRatio)), QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(devicePixelRatio);
    image.fill(background);
    widget.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    return image;
}
