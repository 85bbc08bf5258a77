#include "audio/PeakMeter.h"

#include <algorithm>
#include <cmath>

static_assert(std::atomic<float>::is_always_lock_free, "the audio thread must never wait");

void PeakMeter::take(const float *samples, qint64 count)
{
    if (!samples)
        return;
    float peak = 0;
    for (qint64 i = 0; i < count; ++i)
        peak = std::max(peak, std::abs(samples[i]));
    peak = std::min(peak, 1.0f);
    float stored = m_peak.load(std::memory_order_relaxed);
    while (peak > stored && !m_peak.compare_exchange_weak(stored, peak, std::memory_order_relaxed)) { }
}

float PeakMeter::read()
{
    return m_peak.exchange(0, std::memory_order_relaxed);
}
