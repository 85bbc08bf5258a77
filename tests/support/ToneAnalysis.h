#pragma once

#include <span>
#include <vector>

// Frequency checks on captured audio, for tests that play a tone and look for it
// in a recording. Samples are one channel of float audio.
namespace ToneAnalysis {

// Root-mean-square level of the samples (0 for none).
[[nodiscard]] double rms(std::span<const float> samples);

// Energy at `frequency` (Goertzel), normalised so that a full-scale sine at that
// frequency gives about 0.5 whatever the length; silence gives 0.
[[nodiscard]] double energyAt(std::span<const float> samples, double rate, double frequency);

// The strongest frequency between `low` and `high` Hz, searched in 5 Hz steps
// (then refined to 1 Hz); 0 when the samples are silent.
[[nodiscard]] double dominantFrequency(std::span<const float> samples, double rate, double low = 50,
                                       double high = 4000);

// One channel of interleaved samples.
[[nodiscard]] std::vector<float> channel(std::span<const float> interleaved, int channels, int index);

} // namespace ToneAnalysis
