#include "ui/QrCode.h"

#include "ui/Palette.h"

#include <QPainter>

#include <qrencode.h>

#include <cmath>
#include <memory>
#include <utility>

QrCode::QrCode(int size, int version, std::vector<bool> dark)
    : m_size(size)
    , m_version(version)
    , m_dark(std::move(dark))
{ }

std::optional<QrCode> QrCode::encode(const QByteArray &message)
{
    if (message.isEmpty())
        return std::nullopt;
    const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeData(static_cast<int>(message.size()),
            reinterpret_cast<const unsigned char *>(message.constData()), 0, QR_ECLEVEL_M),
        &QRcode_free);
    if (!code)
        return std::nullopt;
    const int size = code->width;
    std::vector<bool> dark(static_cast<size_t>(size * size));
    // Bit 0 of each byte is the module's colour; the other bits describe what
    // the module belongs to and do not matter for drawing.
    for (size_t i = 0; i < dark.size(); ++i)
        dark[i] = code->data[i] & 1;
    return QrCode(size, code->version, std::move(dark));
}

void QrCode::paint(QPainter &painter, const QRectF &target, int quietZone) const
{
    const int modules = m_size + 2 * quietZone;
    // Module boundaries are chosen in device pixels, rounded so that each
    // module covers whole pixels (neighbours differ by at most one) and no
    // edge is blurred, then mapped back to the painter's coordinates.
    const QTransform toDevice = painter.deviceTransform();
    const QTransform fromDevice = toDevice.inverted();
    const QRectF device = toDevice.mapRect(target);
    auto edgeX = [&](int i) { return std::round(device.left() + i * device.width() / modules); };
    auto edgeY = [&](int i) { return std::round(device.top() + i * device.height() / modules); };
    auto cell = [&](int left, int top, int right, int bottom) {
        return fromDevice.mapRect(
            QRectF(QPointF(edgeX(left), edgeY(top)), QPointF(edgeX(right), edgeY(bottom))));
    };

    painter.save();
    painter.setRenderHint(QPainter::Antialiasing, false);
    painter.setPen(Qt::NoPen);
    const QColor dark = Palette::black(1.f);
    for (int y = 0; y < m_size; ++y) {
        int x = 0;
        while (x < m_size) {
            if (!isDark(x, y)) {
                ++x;
                continue;
            }
            // One rectangle per horizontal run of dark modules.
            const int start = x;
            while (x < m_size && isDark(x, y))
                ++x;
            painter.fillRect(cell(quietZone + start, quietZone + y, quietZone + x, quietZone + y + 1), dark);
        }
    }
    painter.restore();
}

QImage QrCode::toImage(int side, qreal devicePixelRatio, int quietZone) const
{
    const int pixels = static_cast<int>(std::lround(side * devicePixelRatio));
    QImage image(pixels, pixels, QImage::Format_RGB32);
    image.setDevicePixelRatio(devicePixelRatio);
    image.fill(Palette::white());
    QPainter painter(&image);
    paint(painter, QRectF(0, 0, side, side), quietZone);
    return image;
}
