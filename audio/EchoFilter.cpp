#include "audio/EchoFilter.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr int history = EchoDetector::maxDelayFrames;

double energy(const float *samples, int frames)
{
    double sum = 0;
    for (int i = 0; i < frames; ++i)
        sum += static_cast<double>(samples[i]) * samples[i];
    return sum;
}

} // namespace

EchoFilter::EchoFilter()
    : m_speakers(history, 0.0f)
{ }

bool EchoFilter::push(const float *left, const float *right, int frames, const Sink &sink)
{
    m_speakers.insert(m_speakers.end(), left, left + frames);
    m_microphone.insert(m_microphone.end(), right, right + frames);
    m_received += frames;
    // A window is decided once the canceller's output covers it, which takes its
    // latency and one more canceller frame past the window's end.
    while (m_received - m_first >= windowFrames + cancellerLatency + EchoRemover::frameFrames) {
        if (!decide(windowFrames, sink))
            return false;
    }
    return true;
}

bool EchoFilter::finish(const Sink &sink)
{
    while (m_received > m_first) {
        if (!decide(static_cast<int>(std::min<long long>(windowFrames, m_received - m_first)), sink))
            return false;
    }
    return true;
}

void EchoFilter::cancelUntil(long long frame)
{
    float microphone[EchoRemover::frameFrames];
    while (m_fed - cancellerLatency < frame) {
        // Past the end of the stream the canceller is fed silence, to bring out the
        // last of its output.
        for (int i = 0; i < EchoRemover::frameFrames; ++i) {
            const long long at = m_fed + i - m_first;
            microphone[i] = at < static_cast<long long>(m_microphone.size())
                ? m_microphone[static_cast<size_t>(at)]
                : 0.0f;
        }
        const long long referenceAt = m_fed - m_referenceDelay - m_first + history;
        float reference[EchoRemover::frameFrames];
        for (int i = 0; i < EchoRemover::frameFrames; ++i) {
            const long long at = referenceAt + i;
            reference[i]
                = at < static_cast<long long>(m_speakers.size()) ? m_speakers[static_cast<size_t>(at)] : 0.0f;
        }
        m_remover.process(reference, microphone);
        for (int i = 0; i < EchoRemover::frameFrames; ++i) {
            if (m_fed + i - cancellerLatency >= m_first)
                m_cancelled.push_back(microphone[i]);
        }
        m_fed += EchoRemover::frameFrames;
    }
}

bool EchoFilter::decide(int frames, const Sink &sink)
{
    const EchoDetector::Finding finding = EchoDetector::find(m_speakers.data(), m_microphone.data(), frames);
    // Every move of the reference makes the canceller adapt anew: it follows only a
    // delay that moved further than the canceller's own search reaches.
    if (finding.echo
        && (m_report.delayFrames < 0 || std::abs(finding.delayFrames - m_report.delayFrames) > delayMargin)) {
        m_referenceDelay = std::max(0, finding.delayFrames - delayMargin);
        m_report.delayFrames = finding.delayFrames;
    }
    cancelUntil(m_first + frames);
    const float *speakers = m_speakers.data() + history;
    const double input = energy(m_microphone.data(), frames);
    const double output = energy(m_cancelled.data(), frames);
    const bool cancelled = EchoDetector::keepsCancelled(finding, input, output);
    ++m_report.windows;
    if (cancelled) {
        ++m_report.echoWindows;
        m_report.inputEnergy += input;
        m_report.outputEnergy += output;
    }
    if (!sink(speakers, cancelled ? m_cancelled.data() : m_microphone.data(), frames))
        return false;
    m_speakers.erase(m_speakers.begin(), m_speakers.begin() + frames);
    m_microphone.erase(m_microphone.begin(), m_microphone.begin() + frames);
    m_cancelled.erase(m_cancelled.begin(),
        m_cancelled.begin() + std::min<long long>(frames, static_cast<long long>(m_cancelled.size())));
    m_first += frames;
    return true;
}
