#pragma once

#include <span>

// Frequency checks on one channel of float audio, for tests that play or write a tone
// and look for it in a recording or a mix.
namespace ToneAnalysis {

// Root-mean-square level of the samples (0 for none).
[[nodiscard]] double rms(std::span<const float> samples);

// Energy at `frequency` (Goertzel), normalised so that a full-scale sine at that
// frequency gives about 0.25 whatever the length; silence gives 0.
[[nodiscard]] double energyAt(std::span<const float> samples, double rate, double frequency);

// The amplitude of a sine of `frequency` in the samples.
[[nodiscard]] double amplitudeAt(std::span<const float> samples, double rate, double frequency);

// The strongest frequency between `low` and `high` Hz, searched in 5 Hz steps
// (then refined to 1 Hz); 0 when the samples are silent.
[[nodiscard]] double dominantFrequency(
    std::span<const float> samples, double rate, double low = 50, double high = 4000);

} // namespace ToneAnalysis
