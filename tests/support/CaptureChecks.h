#pragma once

#include "support/SoundFile.h"
#include "support/ToneAnalysis.h"

#include <QTest>

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
