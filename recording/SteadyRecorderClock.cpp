#include "recording/SteadyRecorderClock.h"

#include <qcoro/qcorotimer.h>

QDateTime SteadyRecorderClock::now() const
{
    return QDateTime::currentDateTimeUtc();
}

std::chrono::steady_clock::time_point SteadyRecorderClock::monotonicNow() const
{
    return std::chrono::steady_clock::now();
}

QCoro::Task<> SteadyRecorderClock::sleep(std::chrono::milliseconds duration)
{
    co_await QCoro::sleepFor(duration);
}
