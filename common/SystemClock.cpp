#include "common/SystemClock.h"

#include <QTimer>

#include <qcoro/qcorotimer.h>

QDateTime SystemClock::now() const
{
    return QDateTime::currentDateTimeUtc();
}

std::chrono::steady_clock::time_point SystemClock::monotonicNow() const
{
    return std::chrono::steady_clock::now();
}

QCoro::Task<> SystemClock::sleep(std::chrono::milliseconds duration)
{
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    timer.setSingleShot(true);
    timer.start(duration);
    co_await timer;
}
