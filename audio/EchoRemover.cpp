#include "audio/EchoRemover.h"

#include <webrtc/modules/audio_processing/include/audio_processing.h>

namespace {

webrtc::AudioProcessing *makeProcessing()
{
    webrtc::Config config;
    config.Set<webrtc::ExtendedFilter>(new webrtc::ExtendedFilter(true));
    config.Set<webrtc::DelayAgnostic>(new webrtc::DelayAgnostic(true));
    return webrtc::AudioProcessing::Create(config);
}

const webrtc::StreamConfig monoStream(EchoRemover::sampleRate, 1);

} // namespace

EchoRemover::EchoRemover()
    : m_processing(makeProcessing())
{
    const webrtc::ProcessingConfig streams { { monoStream, monoStream, monoStream, monoStream } };
    m_processing->Initialize(streams);
    webrtc::EchoCancellation *canceller = m_processing->echo_cancellation();
    canceller->enable_drift_compensation(false);
    canceller->set_suppression_level(webrtc::EchoCancellation::kLowSuppression);
    canceller->enable_delay_logging(true);
    canceller->Enable(true);
    m_processing->high_pass_filter()->Enable(false);
    m_processing->noise_suppression()->Enable(false);
    m_processing->gain_control()->Enable(false);
}

EchoRemover::~EchoRemover() = default;

void EchoRemover::process(const float *reference, float *microphone)
{
    const float *const reverse[] = { reference };
    float reverseOut[frameFrames];
    float *const reverseDestination[] = { reverseOut };
    m_processing->ProcessReverseStream(reverse, monoStream, monoStream, reverseDestination);
    // Delay-agnostic: the canceller measures the delay, the reported one only has to be set.
    m_processing->set_stream_delay_ms(0);
    const float *const source[] = { microphone };
    float *const destination[] = { microphone };
    m_processing->ProcessStream(source, monoStream, monoStream, destination);
}

bool EchoRemover::heardEcho() const
{
    return m_processing->echo_cancellation()->stream_has_echo();
}

int EchoRemover::delayMilliseconds() const
{
    int median = -1;
    int deviation = 0;
    float poor = 0;
    if (m_processing->echo_cancellation()->GetDelayMetrics(&median, &deviation, &poor) != 0)
        return -1;
    return median;
}
