#include "service/RetryAfter.h"

#include <algorithm>

std::optional<std::chrono::seconds> RetryAfter::parse(const QByteArray &value, const QDateTime &now)
{
    const QByteArray text = value.trimmed();
    if (text.isEmpty())
        return std::nullopt;
    bool isNumber = false;
    const qint64 seconds = text.toLongLong(&isNumber);
    if (isNumber)
        return seconds < 0 ? std::nullopt : std::optional(std::chrono::seconds(seconds));
    // "Wed, 21 Oct 2015 07:28:00 GMT": an RFC 2822 date once its zone is written as
    // Qt reads zones.
    QString date = QString::fromLatin1(text);
    if (date.endsWith(QLatin1String(" GMT")))
        date = date.chopped(3) + QLatin1String("+0000");
    const QDateTime at = QDateTime::fromString(date, Qt::RFC2822Date);
    if (!at.isValid())
        return std::nullopt;
    return std::chrono::seconds(std::max<qint64>(0, now.secsTo(at)));
}
