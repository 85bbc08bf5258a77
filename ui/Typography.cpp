#include "ui/Typography.h"

#include <QFontDatabase>
#include <QFontMetricsF>
#include <QStringList>

QFont Typography::system(int pixelSize, QFont::Weight weight)
{
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    font.setPixelSize(pixelSize);
    font.setWeight(weight);
    font.setStyleStrategy(QFont::PreferAntialias);
    return font;
}

bool Typography::hasEqualWidthDigits(const QFont &font)
{
    const QFontMetricsF metrics(font);
    const qreal zero = metrics.horizontalAdvance(QLatin1Char('0'));
    for (char digit = '1'; digit <= '9'; ++digit) {
        if (!qFuzzyCompare(metrics.horizontalAdvance(QLatin1Char(digit)), zero))
            return false;
    }
    return true;
}

QFont Typography::clock()
{
    QFont font = system(52, QFont::Light);
    // Rounded faces first, in order of how close they come to a rounded
    // system face; only installed ones with tabular digits qualify.
    static const QStringList rounded = {
        QStringLiteral("SF Pro Rounded"),
        QStringLiteral("Nunito"),
        QStringLiteral("Varela Round"),
        QStringLiteral("M PLUS Rounded 1c"),
    };
    const QStringList installed = QFontDatabase::families();
    for (const QString &family : rounded) {
        if (!installed.contains(family))
            continue;
        QFont candidate = font;
        candidate.setFamilies({ family });
        if (hasEqualWidthDigits(candidate))
            return candidate;
    }
    if (!hasEqualWidthDigits(font)) {
        QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);
        fixed.setPixelSize(52);
        fixed.setWeight(QFont::Light);
        return fixed;
    }
    return font;
}

QFont Typography::code()
{
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPixelSize(32);
    font.setWeight(QFont::Bold);
    font.setStyleStrategy(QFont::PreferAntialias);
    return font;
}
