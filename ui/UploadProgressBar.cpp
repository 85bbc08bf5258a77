#include "ui/UploadProgressBar.h"

#include "ui/Palette.h"

#include <QPainter>
#include <QPainterPath>

#include <algorithm>

UploadProgressBar::UploadProgressBar(QWidget *parent)
    : QProgressBar(parent)
{
    setObjectName(QStringLiteral("uploadProgress"));
    setAccessibleName(tr("Upload progress"));
    setRange(0, 100);
    setValue(0);
    setTextVisible(false);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void UploadProgressBar::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF track = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    const qreal radius = track.height() / 2;
    QPainterPath pill;
    pill.addRoundedRect(track, radius, radius);
    painter.fillPath(pill, Palette::black(0.07f));
    const qreal filled = track.width() * std::clamp(value(), 0, 100) / 100.0;
    if (filled <= 0)
        return;
    QPainterPath bar;
    // At least a circle, so that the first percent already reads as a pill.
    bar.addRoundedRect(
        QRectF(track.left(), track.top(), std::max(filled, track.height()), track.height()), radius, radius);
    painter.fillPath(bar, Palette::black(0.32f));
}
