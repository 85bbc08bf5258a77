#include "common/ClockText.h"

#include <QLocale>
#include <QtGlobal>

#include <algorithm>
#include <cmath>

namespace {

qint64 wholeSeconds(double seconds)
{
    // 2^63 as a double; every double below it (and at or above -2^63) truncates into qint64.
    constexpr double limit = 9223372036854775808.0;
    if (!std::isfinite(seconds) || seconds >= limit || seconds < -limit)
        qFatal("ClockText: %f seconds cannot be shown on a clock", seconds);
    return static_cast<qint64>(seconds);
}

} // namespace

QString ClockText::format(double seconds)
{
    const qint64 t = wholeSeconds(seconds);
    if (t >= 3600)
        return QString::asprintf("%lld:%02lld:%02lld", t / 3600, (t / 60) % 60, t % 60);
    const qint64 minutes = t / 60;
    return QString::asprintf("%02lld:%02lld", minutes, t - 60 * minutes);
}

QString ClockText::countdown(double secondsLeft)
{
    const qint64 r = std::max<qint64>(0, wholeSeconds(secondsLeft));
    return QString::asprintf("%lld:%02lld", r / 60, r % 60);
}

QString ClockText::startOf(const QDateTime &instant)
{
    const QDateTime local = instant.toLocalTime();
    if (local.date() == QDate::currentDate())
        return local.toString(QStringLiteral("HH:mm"));
    return QLocale().toString(local, QLocale::ShortFormat);
}
