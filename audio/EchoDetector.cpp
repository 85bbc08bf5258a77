#include "audio/EchoDetector.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

// Floats, so that the correlation's inner loop runs four or eight products at a time.
std::vector<float> averaged(const float *samples, int frames)
{
    std::vector<float> out(static_cast<size_t>(frames / EchoDetector::decimation));
    for (size_t i = 0; i < out.size(); ++i) {
        float sum = 0;
        for (int k = 0; k < EchoDetector::decimation; ++k)
            sum += samples[i * EchoDetector::decimation + static_cast<size_t>(k)];
        out[i] = sum;
    }
    // Whitened by a first difference: voiced speech puts most of its energy into a few
    // low harmonics, which correlate with any other voice by chance.
    for (size_t i = out.size(); i-- > 1;)
        out[i] -= out[i - 1];
    if (!out.empty())
        out[0] = 0;
    return out;
}

// Eight sums side by side, which the compiler turns into vector instructions (one sum
// would have to add in order).
double dot(const float *a, const float *b, size_t n)
{
    constexpr size_t lanes = 8;
    float sums[lanes] = {};
    size_t i = 0;
    for (; i + lanes <= n; i += lanes) {
        for (size_t k = 0; k < lanes; ++k)
            sums[k] += a[i + k] * b[i + k];
    }
    double total = 0;
    for (; i < n; ++i)
        total += static_cast<double>(a[i]) * b[i];
    for (const float sum : sums)
        total += sum;
    return total;
}

} // namespace

EchoDetector::Finding EchoDetector::find(const float *speakers, const float *microphone, int frames)
{
    const std::vector<float> reference = averaged(speakers, maxDelayFrames + frames);
    const std::vector<float> heard = averaged(microphone, frames);
    const size_t lags = maxDelayFrames / decimation;
    double heardEnergy = 0;
    for (const float x : heard)
        heardEnergy += static_cast<double>(x) * x;
    // The speakers' energy under the window at each delay, slid along.
    double referenceEnergy = 0;
    for (size_t i = 0; i < heard.size(); ++i)
        referenceEnergy += static_cast<double>(reference[lags + i]) * reference[lags + i];
    std::vector<double> correlations(lags + 1, 0.0);
    for (size_t lag = 0; lag <= lags; ++lag) {
        const float *shifted = reference.data() + (lags - lag);
        if (lag > 0) {
            const double entering = shifted[0];
            const double leaving = shifted[heard.size()];
            referenceEnergy += entering * entering - leaving * leaving;
        }
        if (referenceEnergy <= 0 || heardEnergy <= 0)
            continue;
        correlations[lag]
            = std::abs(dot(heard.data(), shifted, heard.size())) / std::sqrt(referenceEnergy * heardEnergy);
    }
    // The echo's way straight from the speakers comes first; its reflections can peak
    // higher, later, and the canceller needs the reference before the first of it.
    const double peak = *std::max_element(correlations.begin(), correlations.end());
    Finding found;
    found.correlation = peak;
    found.echo = peak >= echoCorrelation;
    const auto first = std::find_if(correlations.begin(), correlations.end(),
        [peak](double correlation) { return correlation >= directShare * peak; });
    found.delayFrames = static_cast<int>(first - correlations.begin()) * decimation;
    return found;
}

bool EchoDetector::keepsCancelled(const Finding &finding, double inputEnergy, double outputEnergy)
{
    return finding.echo && outputEnergy * std::pow(10.0, leastReductionDb / 10) <= inputEnergy;
}
