#pragma once

#include "ui/Symbol.h"

#include <QColor>
#include <QImage>
#include <QPixmap>
#include <QString>

class QPainter;
class QRectF;

// Symbols drawn in one colour, like text. Each symbol is taken from the
// freedesktop icon theme under its "-symbolic" name (the desktop's own theme
// first, then Adwaita, then hicolor) and recoloured through its alpha; when no
// theme has it, a painted version of the symbol is used, so the screens look
// the same on a bare machine and in offscreen snapshots.
//
// Main thread only: loaded theme images are kept in a small cache.
class SymbolIcon
{
public:
    enum class Source : quint8 { themeOrPainted, painted };

    // The freedesktop name standing in for `symbol`; empty for the waveform,
    // which is always painted.
    [[nodiscard]] static QString themeName(Symbol symbol);

    // `symbol` in `color`, `extent` points square, at `devicePixelRatio`.
    [[nodiscard]] static QPixmap pixmap(Symbol symbol, qreal extent, const QColor &color,
        qreal devicePixelRatio, Source source = Source::themeOrPainted);

    // Draws `symbol` into `rect` (logical coordinates) at the painter's real
    // device pixel ratio, so it stays crisp when rendered at 2x.
    static void paint(QPainter &painter, Symbol symbol, const QRectF &rect, const QColor &color,
        Source source = Source::themeOrPainted);

    // The theme's image for `name` at `pixels` or larger (largest available
    // otherwise), as found on disk; null when no searched theme has it.
    [[nodiscard]] static QImage themeImage(const QString &name, int pixels);

    // The painted version, in `color`, filling `rect`. Meant for a transparent
    // image (pixmap() paints into one): checkmarkCircleFill cuts its check out.
    static void paintFallback(QPainter &painter, Symbol symbol, const QRectF &rect, const QColor &color);
};
