#pragma once

#include "common/Clock.h"

// Real time: UTC wall time, std::chrono::steady_clock, and precise-timer sleeps
// (Qt's default coarse timers may fire up to 5 % early).
class SystemClock final : public Clock
{
public:
    [[nodiscard]] QDateTime now() const override;
    [[nodiscard]] std::chrono::steady_clock::time_point monotonicNow() const override;
    [[nodiscard]] QCoro::Task<> sleep(std::chrono::milliseconds duration) override;
};
