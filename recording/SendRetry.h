#pragma once

#include "service/ApiError.h"

#include <chrono>
#include <functional>

// When a failed send is tried again by itself, and after how long. A retry can fix a
// failure below HTTP (a dropped connection, a time-out, no route), 408, 429 and any 5xx;
// nothing else: 401 and 403 are the session's business (one refresh, then the user's),
// and other answers would only be given again. A send gets `tries` tries in all,
// waiting about 5 s, 30 s and 2 min between them, each stretched or shrunk by up to a
// fifth at random so that many recorders cut off together do not all come back at the
// same instant; an answer's Retry-After replaces the interval, up to five minutes.
class SendRetry
{
public:
    static constexpr int tries = 4;
    static constexpr std::chrono::minutes longestRetryAfter { 5 };
    // A number in [0, 1); the default draws from QRandomGenerator::global().
    using Jitter = std::function<double()>;

    explicit SendRetry(Jitter jitter = {});

    [[nodiscard]] static bool canFix(const ApiError &error);
    // The wait before try `next` (2 .. tries) after `error` ended the one before.
    [[nodiscard]] std::chrono::milliseconds waitBefore(int next, const ApiError &error) const;

private:
    Jitter m_jitter;
};
