#include "ui/SymbolIcon.h"

#include "ui/Rendering.h"
#include "ui/WaveformIndicator.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QIcon>
#include <QImageReader>
#include <QPainter>
#include <QPainterPath>
#include <QRegularExpression>
#include <QStandardPaths>

#include <algorithm>
#include <cmath>

namespace {

QStringList iconBaseDirs()
{
    QStringList dirs = QIcon::themeSearchPaths();
    dirs << QDir::homePath() + QStringLiteral("/.icons");
    for (const QString &data : QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation))
        dirs << data + QStringLiteral("/icons");
    dirs.removeDuplicates();
    return dirs;
}

QStringList themeNames()
{
    QStringList themes;
    for (const QString &theme : { QIcon::themeName(), QIcon::fallbackThemeName(), QStringLiteral("Adwaita"),
             QStringLiteral("hicolor") }) {
        if (!theme.isEmpty() && !themes.contains(theme))
            themes << theme;
    }
    return themes;
}

struct Candidate
{
    int size = 0; // pixels; scalable files count as larger than any fixed size
    QString path;
};

// Every file for `name` in one theme folder. Themes keep fixed sizes in
// "<N>x<N>/<context>/" (newer ones name symbolic bitmaps "<name>.symbolic.png")
// and vector ones in "scalable/<context>/", which need Qt's SVG image plugin.
QList<Candidate> candidatesIn(const QDir &theme, const QString &name, bool svg)
{
    static const QRegularExpression fixedSize(QStringLiteral("^(\\d+)x\\1$"));
    QList<Candidate> found;
    for (const QString &sizeDir : theme.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QRegularExpressionMatch match = fixedSize.match(sizeDir);
        const bool scalable = sizeDir == QLatin1String("scalable");
        if (!match.hasMatch() && !(scalable && svg))
            continue;
        const QDir sizeFolder(theme.filePath(sizeDir));
        for (const QString &context : sizeFolder.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            const QDir folder(sizeFolder.filePath(context));
            const QStringList files = scalable
                ? QStringList { name + QStringLiteral(".svg") }
                : QStringList { name + QStringLiteral(".symbolic.png"), name + QStringLiteral(".png") };
            for (const QString &file : files) {
                if (QFileInfo::exists(folder.filePath(file)))
                    found.append({ scalable ? std::numeric_limits<int>::max() : match.captured(1).toInt(),
                        folder.filePath(file) });
            }
        }
    }
    return found;
}

QImage loadScaled(const Candidate &candidate, int pixels)
{
    QImageReader reader(candidate.path);
    if (candidate.size == std::numeric_limits<int>::max())
        reader.setScaledSize(QSize(pixels, pixels));
    QImage image = reader.read();
    if (image.isNull())
        return image;
    if (image.width() != pixels)
        image = image.scaled(pixels, pixels, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    return image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

QImage recoloured(QImage image, const QColor &color)
{
    QPainter painter(&image);
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(image.rect(), color);
    return image;
}

QImage painted(Symbol symbol, int pixels, const QColor &color)
{
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    SymbolIcon::paintFallback(painter, symbol, QRectF(0, 0, pixels, pixels), color);
    return image;
}

} // namespace

QString SymbolIcon::themeName(Symbol symbol)
{
    switch (symbol) {
    case Symbol::recordCircle:
        return QStringLiteral("media-record-symbolic");
    case Symbol::pauseFill:
        return QStringLiteral("media-playback-pause-symbolic");
    case Symbol::playFill:
        return QStringLiteral("media-playback-start-symbolic");
    case Symbol::trash:
        return QStringLiteral("user-trash-symbolic");
    case Symbol::checkmark:
        return QStringLiteral("object-select-symbolic");
    case Symbol::checkmarkCircleFill:
        return QStringLiteral("emblem-default-symbolic");
    case Symbol::waveform:
        return {}; // no freedesktop glyph; always painted
    }
    Q_UNREACHABLE();
}

QImage SymbolIcon::themeImage(const QString &name, int pixels)
{
    // Keyed by name and size; a miss is cached too, so a bare machine pays
    // for the folder scan once per symbol and size.
    static QHash<QString, QImage> cache;
    const QString key = name + QLatin1Char('@') + QString::number(pixels);
    if (const auto hit = cache.constFind(key); hit != cache.constEnd())
        return *hit;

    QImage image;
    // The desktop's own theme engine first: it knows the user's theme and its
    // inheritance. It may know a name yet yield nothing (a vector icon without
    // Qt's SVG plugin) or only a smaller bitmap; then the disk is searched or
    // the bitmap scaled.
    if (const QIcon icon = QIcon::fromTheme(name); !icon.isNull()) {
        image = icon.pixmap(QSize(pixels, pixels)).toImage();
        if (!image.isNull() && image.width() != pixels)
            image = image.scaled(pixels, pixels, Qt::KeepAspectRatio, Qt::SmoothTransformation);
        if (!image.isNull())
            image = image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    }
    if (image.isNull()) {
        const bool svg = QImageReader::supportedImageFormats().contains("svg");
        const QStringList bases = iconBaseDirs();
        for (const QString &theme : themeNames()) {
            QList<Candidate> found;
            for (const QString &base : bases) {
                const QDir dir(base + QLatin1Char('/') + theme);
                if (dir.exists())
                    found += candidatesIn(dir, name, svg);
            }
            if (found.isEmpty())
                continue;
            // The smallest image at least as large as asked, else the largest.
            std::sort(found.begin(), found.end(),
                [](const Candidate &a, const Candidate &b) { return a.size < b.size; });
            const auto fit = std::find_if(
                found.cbegin(), found.cend(), [pixels](const Candidate &c) { return c.size >= pixels; });
            image = loadScaled(fit != found.cend() ? *fit : found.constLast(), pixels);
            if (!image.isNull())
                break;
        }
    }
    cache.insert(key, image);
    return image;
}

QPixmap SymbolIcon::pixmap(
    Symbol symbol, qreal extent, const QColor &color, qreal devicePixelRatio, Source source)
{
    const int pixels = std::max(1, static_cast<int>(std::lround(extent * devicePixelRatio)));
    QImage image;
    if (source == Source::themeOrPainted && !themeName(symbol).isEmpty())
        image = themeImage(themeName(symbol), pixels);
    image = image.isNull() ? painted(symbol, pixels, color) : recoloured(image, color);
    QPixmap pixmap = QPixmap::fromImage(image);
    pixmap.setDevicePixelRatio(devicePixelRatio);
    return pixmap;
}

void SymbolIcon::paint(
    QPainter &painter, Symbol symbol, const QRectF &rect, const QColor &color, Source source)
{
    const qreal ratio = Rendering::devicePixelRatio(painter);
    const QPixmap image = pixmap(symbol, std::min(rect.width(), rect.height()), color, ratio, source);
    const QSizeF size = image.deviceIndependentSize();
    painter.drawPixmap(
        QRectF(QPointF(rect.center().x() - size.width() / 2, rect.center().y() - size.height() / 2), size),
        image, QRectF(image.rect()));
}

void SymbolIcon::paintFallback(QPainter &painter, Symbol symbol, const QRectF &rect, const QColor &color)
{
    // Drawn in a 16-unit box, the grid the freedesktop symbolic icons use.
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(rect.topLeft());
    painter.scale(rect.width() / 16.0, rect.height() / 16.0);
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    QPen stroke(color, 1.8, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);

    switch (symbol) {
    case Symbol::recordCircle:
        painter.setPen(stroke);
        painter.setBrush(Qt::NoBrush);
        painter.drawEllipse(QPointF(8, 8), 6.6, 6.6);
        painter.setPen(Qt::NoPen);
        painter.setBrush(color);
        painter.drawEllipse(QPointF(8, 8), 3.8, 3.8);
        break;
    case Symbol::pauseFill:
        painter.drawRoundedRect(QRectF(3.5, 2, 3.2, 12), 1, 1);
        painter.drawRoundedRect(QRectF(9.3, 2, 3.2, 12), 1, 1);
        break;
    case Symbol::playFill: {
        QPainterPath path;
        path.moveTo(4, 2.2);
        path.lineTo(13.6, 8);
        path.lineTo(4, 13.8);
        path.closeSubpath();
        painter.setPen(QPen(color, 1.2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.drawPath(path);
        break;
    }
    case Symbol::trash: {
        stroke.setWidthF(1.5);
        painter.setPen(stroke);
        painter.setBrush(Qt::NoBrush);
        painter.drawLine(QPointF(2, 3.8), QPointF(14, 3.8));
        painter.drawLine(QPointF(6.2, 1.8), QPointF(9.8, 1.8));
        QPainterPath body;
        body.moveTo(3.6, 3.8);
        body.lineTo(4.6, 14.2);
        body.lineTo(11.4, 14.2);
        body.lineTo(12.4, 3.8);
        painter.drawPath(body);
        painter.drawLine(QPointF(6.7, 6.5), QPointF(6.9, 11.5));
        painter.drawLine(QPointF(9.3, 6.5), QPointF(9.1, 11.5));
        break;
    }
    case Symbol::checkmark: {
        stroke.setWidthF(2.0);
        painter.setPen(stroke);
        painter.setBrush(Qt::NoBrush);
        painter.drawPolyline(QPolygonF({ QPointF(2.5, 8.6), QPointF(6.2, 12.3), QPointF(13.5, 4) }));
        break;
    }
    case Symbol::checkmarkCircleFill: {
        painter.drawEllipse(QPointF(8, 8), 7.5, 7.5);
        // The check is cut out of the disc so that it shows what lies behind.
        painter.setCompositionMode(QPainter::CompositionMode_Clear);
        painter.setPen(QPen(Qt::black, 1.7, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.setBrush(Qt::NoBrush);
        painter.drawPolyline(QPolygonF({ QPointF(4.6, 8.3), QPointF(7, 10.7), QPointF(11.5, 5.6) }));
        break;
    }
    case Symbol::waveform:
        for (const QRectF &bar : WaveformIndicator::bars(QRectF(0, 0, 16, 16)))
            painter.drawRoundedRect(bar, bar.width() / 2, bar.width() / 2);
        break;
    }
    painter.restore();
}
