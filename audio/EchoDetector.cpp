#include "audio/EchoDetector.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

std::vector<double> averaged(const float *samples, int frames)
{
    std::vector<double> out(static_cast<size_t>(frames / EchoDetector::decimation));
    for (size_t i = 0; i < out.size(); ++i) {
        double sum = 0;
        for (int k = 0; k < EchoDetector::decimation; ++k)
            sum += samples[i * EchoDetector::decimation + static_cast<size_t>(k)];
        out[i] = sum;
    }
    return out;
}

} // namespace

EchoDetector::Finding EchoDetector::find(const float *speakers, const float *microphone, int frames)
{
    const std::vector<double> reference = averaged(speakers, maxDelayFrames + frames);
    const std::vector<double> heard = averaged(microphone, frames);
    const size_t lags = maxDelayFrames / decimation;
    double heardEnergy = 0;
    for (double x : heard)
        heardEnergy += x * x;
    // The speakers' energy under the window at each delay, slid along.
    double referenceEnergy = 0;
    for (size_t i = 0; i < heard.size(); ++i)
        referenceEnergy += reference[lags + i] * reference[lags + i];
    std::vector<double> correlations(lags + 1, 0.0);
    for (size_t lag = 0; lag <= lags; ++lag) {
        const double *shifted = reference.data() + (lags - lag);
        if (lag > 0) {
            const double entering = shifted[0];
            const double leaving = shifted[heard.size()];
            referenceEnergy += entering * entering - leaving * leaving;
        }
        if (referenceEnergy <= 0 || heardEnergy <= 0)
            continue;
        double product = 0;
        for (size_t i = 0; i < heard.size(); ++i)
            product += heard[i] * shifted[i];
        correlations[lag] = std::abs(product) / std::sqrt(referenceEnergy * heardEnergy);
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
