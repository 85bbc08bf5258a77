#include "service/ServiceText.h"

#include <QList>

QString ServiceText::bounded(const QString &text)
{
    const QList<uint> codePoints = text.toUcs4();
    const bool cut = codePoints.size() > maxLength;
    QString result;
    result.reserve(text.size());
    for (qsizetype i = 0; i < codePoints.size() && i < (cut ? maxLength - 1 : maxLength); ++i) {
        const char32_t c = codePoints.at(i);
        const char32_t shown = QChar::isPrint(c) ? c : char32_t(QChar::ReplacementCharacter);
        result.append(QStringView(QChar::fromUcs4(shown)));
    }
    if (cut)
        result.append(QChar(0x2026));
    return result;
}
