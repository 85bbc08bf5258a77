#pragma once

#include "recording/RecorderClock.h"

// Real time: the UTC wall clock, std::chrono::steady_clock, and timers for the sleeps.
class SteadyRecorderClock final : public RecorderClock
{
public:
    [[nodiscard]] QDateTime now() const override;
    [[nodiscard]] std::chrono::steady_clock::time_point monotonicNow() const override;
    [[nodiscard]] QCoro::Task<> sleep(std::chrono::milliseconds duration) override;
};
