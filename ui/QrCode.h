#pragma once

#include <QByteArray>
#include <QImage>
#include <QRectF>

#include <optional>
#include <vector>

class QPainter;

// A QR code symbol (error correction level M) made with libqrencode from a
// message's bytes, and drawn with crisp modules: every module edge falls on a
// device pixel, so the code stays sharp at 1x and 2x and scanners see clean
// edges. Light modules and the quiet zone are white.
class QrCode
{
public:
    // Modules of white margin around the symbol. Four is the standard's
    // figure for print; on screen two keep phones reading reliably while
    // leaving the modules larger in the 200-point frame.
    static constexpr int defaultQuietZone = 2;

    // The symbol for `message` in 8-bit mode; nothing when it cannot be
    // encoded (empty, or too long for any version at level M).
    [[nodiscard]] static std::optional<QrCode> encode(const QByteArray &message);

    // Modules per side, without the quiet zone.
    [[nodiscard]] int size() const { return m_size; }
    [[nodiscard]] int version() const { return m_version; }
    [[nodiscard]] bool isDark(int x, int y) const { return m_dark[static_cast<size_t>(y * m_size + x)]; }

    // Draws the dark modules of the symbol stretched to `target` (logical
    // coordinates, quiet zone included), module edges snapped to the painter's
    // device pixels. The caller provides the white behind it (a card with
    // rounded corners, or toImage's plain white); the painter's state is kept.
    void paint(QPainter &painter, const QRectF &target, int quietZone = defaultQuietZone) const;

    // The code as an image `side` points square at `devicePixelRatio`.
    [[nodiscard]] QImage toImage(int side, qreal devicePixelRatio, int quietZone = defaultQuietZone) const;

private:
    QrCode(int size, int version, std::vector<bool> dark);

    int m_size = 0;
    int m_version = 0;
    std::vector<bool> m_dark;
};
