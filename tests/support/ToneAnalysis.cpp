#include "support/ToneAnalysis.h"

#include <cmath>
#include <numbers>

namespace ToneAnalysis {

double rms(std::span<const float> samples)
{
    if (samples.empty())
        return 0;
    double sum = 0;
    for (float s : samples)
        sum += static_cast<double>(s) * s;
    return std::sqrt(sum / static_cast<double>(samples.size()));
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
    const double power = previous * previous + beforePrevious * beforePrevious - coefficient * previous * beforePrevious;
    const double n = static_cast<double>(samples.size());
    return power / (n * n);
}

double dominantFrequency(std::span<const float> samples, double rate, double low, double high)
{
    if (rms(samples) < 1e-6)
        return 0;
    auto best = [&](double from, double to, double step) {
        double bestFrequency = from, bestEnergy = -1;
        for (double f = from; f <= to; f += step) {
            const double e = energyAt(samples, rate, f);
            if (e > bestEnergy) {
                bestEnergy = e;
                bestFrequency = f;
            }
        }
        return bestFrequency;
    };
    const double coarse = best(low, high, 5);
    return best(coarse - 5, coarse + 5, 1);
}

std::vector<float> channel(std::span<const float> interleaved, int channels, int index)
{
    std::vector<float> result;
    result.reserve(interleaved.size() / static_cast<std::size_t>(channels));
    for (std::size_t i = static_cast<std::size_t>(index); i < interleaved.size(); i += static_cast<std::size_t>(channels))
        result.push_back(interleaved[i]);
    return result;
}

} // namespace ToneAnalysis
