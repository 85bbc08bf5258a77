#pragma once

#include <QtGlobal>

#include <algorithm>
#include <chrono>

// How long the client lets a call run. The inactivity limit alone is not enough: a
// server that drips one byte every few seconds would keep a call alive for ever, so
// every call also has an overall deadline. A call that runs out of either ends as a
// transport error with the time-out sentence, which the flows show like any other
// network failure. Tests pass short values.
struct ServiceDeadlines
{
    // No byte moved for this long.
    std::chrono::milliseconds inactivity { std::chrono::seconds(60) };
    // The whole of one JSON call.
    std::chrono::milliseconds jsonCall { std::chrono::minutes(2) };
    // The upload: its size at uploadFloorRate, but never less than uploadMinimum.
    std::chrono::milliseconds uploadMinimum { std::chrono::minutes(2) };
    qint64 uploadFloorRate = 32 * 1024; // bytes per second

    [[nodiscard]] std::chrono::milliseconds upload(qint64 bytes) const
    {
        const std::chrono::milliseconds bySize(bytes * 1000 / uploadFloorRate);
        return std::max(bySize, uploadMinimum);
    }
};
