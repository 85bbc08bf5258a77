#include "support/ToneAnalysis.h"

#include <cmath>
#include <numbers>

namespace ToneAnalysis {

double rms(std::span<const float> samples)
{
    double sum = 0;
    for (float s : samples)
        sum += static_cast<double>(s) * s;
    return samples.empty() ? 0 : std::sqrt(sum / static_cast<double>(samples.size()));
}

double energyAt(std::span<const float> samples, double rate, double frequency)
{
    if (samples.empty())
        return 0;
    const double coefficient = 2 * std::cos(2 * std::numbers::pi * frequency / rate);
    double previous = 0, beforePrevious = 0;
    for (float s : samples) {
        const double current = s + coefficient * previous - beforePrevious;
        beforePrevious = previous;
        previous = current;
    }
    const double power
        = previous * previous + beforePrevious * beforePrevious - coefficient * previous * beforePrevious;
    const double n = static_cast<double>(samples.size());
    return std::max(power, 0.0) / (n * n);
}

double amplitudeAt(std::span<const float> samples, double rate, double frequency)
{
    return 2 * std::sqrt(energyAt(samples, rate, frequency));
}

double dominantFrequency(std::span<const float> samples, double rate, double low, double high)
{
    if (rms(samples) < 1e-6)
        return 0;
    auto best = [&](double from, double to, double step) {
        double bestFrequency = from, bestEnergy = -1;
        for (double f = from; f <= to; f += step) {
            if (const double e = energyAt(samples, rate, f); e > bestEnergy) {
                bestEnergy = e;
                bestFrequency = f;
            }
        }
        return bestFrequency;
    };
    const double coarse = best(low, high, 5);
    return best(coarse - 5, coarse + 5, 1);
}

} // namespace ToneAnalysis
