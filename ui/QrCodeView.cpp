#include "ui/QrCodeView.h"

#include "ui/Palette.h"

#include <QPainter>
#include <QPainterPath>

QrCodeView::QrCodeView(QWidget *parent)
    : QWidget(parent)
{
    setFixedSize(side, side);
    setAccessibleName(tr("QR code"));
}

void QrCodeView::setMessage(const QByteArray &message)
{
    if (m_message == message && (m_code || message.isEmpty()))
        return;
    m_message = message;
    m_code = QrCode::encode(message);
    update();
}

void QrCodeView::paintEvent(QPaintEvent *)
{
    if (!m_code)
        return;
    QPainter painter(this);
    const QRectF card(0, 0, side, side);
    // The card's rounded outline is antialiased; the modules inside are not.
    QPainterPath outline;
    outline.addRoundedRect(card, cornerRadius, cornerRadius);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.fillPath(outline, Palette::white());
    painter.setClipPath(outline);
    m_code->paint(painter, card);
}
