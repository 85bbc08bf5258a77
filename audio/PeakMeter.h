#pragma once

#include <QtGlobal>

#include <atomic>

// The loudest sample of a source since the level was last read, handed from the
// audio thread to the main thread without a lock: the audio thread raises a
// stored peak, the reader takes it and leaves zero behind.
//
// Thread contract: take() on the thread that delivers blocks (one at a time);
// read() on one reader thread. Null blocks (silence filled in for a gap) and
// samples of exactly zero leave the level at zero: digital silence reads as 0.
class PeakMeter
{
public:
    // `samples` interleaved floats at full scale ±1, or null for silence.
    void take(const float *samples, qint64 count);
    // The peak since the previous read, 0..1; resets it.
    [[nodiscard]] float read();

private:
    std::atomic<float> m_peak { 0 };
};
