#pragma once

#include "support/SoundFile.h"
#include "support/ToneAnalysis.h"

#include <QTest>

#include <cmath>

// A sink's monitor that was idle starts delivering only once its latency has come
// down; recorded time in the capture tests counts from the first block written.
template <typename Recorder>
[[nodiscard]] bool waitForFirstAudio(const Recorder &recorder)
{
    return QTest::qWaitFor([&] { return recorder.statistics().framesWritten > 0; }, 5000);
}

// The strongest frequency of one channel between `from` and `from + length` seconds.
[[nodiscard]] inline double dominantAt(const SoundFile &file, double from, double length, int channel = 0)
{
    return ToneAnalysis::dominantFrequency(file.channelSpan(channel, from, length), file.rate);
}

// Whether `frequency` is the strongest between `from` and `from + length` seconds.
// A window holding a splice (a pause, a device switch, a resampled sink) can move
// the peak by a hertz or two, so the check allows that much.
[[nodiscard]] inline bool toneAt(const SoundFile &file, double from, double length, double frequency, int channel = 0)
{
    return std::abs(dominantAt(file, from, length, channel) - frequency) <= 2.0;
}
