#pragma once

#include <QDateTime>

#include <qcoro/qcorotask.h>

#include <chrono>

// The application's time: the wall clock that dates things (a recording's start, a
// pairing code's expiry), a monotonic clock that measures spans (a clock step during
// a recording must not change its length), and sleeps (the display ticker, the
// permission poll, the pairing poll). Tests pass one they move by hand.
//
// Main thread only. Callers keep the clock alive (shared_ptr) across their own
// sleeps, so sleep() may touch its object after it resumes.
class Clock
{
public:
    virtual ~Clock() = default;

    [[nodiscard]] virtual QDateTime now() const = 0;
    [[nodiscard]] virtual std::chrono::steady_clock::time_point monotonicNow() const = 0;
    // Never ends before `duration` has passed.
    [[nodiscard]] virtual QCoro::Task<> sleep(std::chrono::milliseconds duration) = 0;
};
