#pragma once

#include "account/PairingClock.h"

// Real time: UTC wall clock, and a timer on the monotonic clock for the sleeps.
class SystemPairingClock final : public PairingClock
{
public:
    [[nodiscard]] QDateTime now() const override;
    [[nodiscard]] QCoro::Task<> sleep(std::chrono::milliseconds duration) override;
};
