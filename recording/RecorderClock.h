#pragma once

#include <QDateTime>

#include <qcoro/qcorotask.h>

#include <chrono>

// The recorder's time: the wall clock that dates a recording's start, a monotonic
// clock that measures the recorded segments (a clock step during a recording must not
// change its length), and the sleeps of the display ticker (0.5 s) and of the
// system-audio permission poll (1 s). Tests pass one they drive by hand.
//
// Main thread only. Callers keep the clock alive (shared_ptr) across their own
// sleeps, so sleep() may touch its object after it resumes.
class RecorderClock
{
public:
    virtual ~RecorderClock() = default;

    [[nodiscard]] virtual QDateTime now() const = 0;
    [[nodiscard]] virtual std::chrono::steady_clock::time_point monotonicNow() const = 0;
    [[nodiscard]] virtual QCoro::Task<> sleep(std::chrono::milliseconds duration) = 0;
};
