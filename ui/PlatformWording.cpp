#include "ui/PlatformWording.h"

#include <QRegularExpression>

QString PlatformWording::reword(const QString &text)
{
    static const QRegularExpression thisMac(QStringLiteral("\\b([Tt]his) Mac\\b"));
    QString reworded = text;
    reworded.replace(thisMac, QStringLiteral("\\1 computer"));
    return reworded;
}

QString PlatformWording::translate(const char *, const char *sourceText, const char *, int) const
{
    if (!sourceText)
        return {};
    const QString source = QString::fromUtf8(sourceText);
    const QString reworded = reword(source);
    return reworded == source ? QString() : reworded;
}
