#include "account/SystemPairingClock.h"

#include <qcoro/qcorotimer.h>

QDateTime SystemPairingClock::now() const
{
    return QDateTime::currentDateTimeUtc();
}

QCoro::Task<> SystemPairingClock::sleep(std::chrono::milliseconds duration)
{
    co_await QCoro::sleepFor(duration);
}
