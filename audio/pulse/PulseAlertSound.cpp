#include "audio/pulse/PulseAlertSound.h"

#include "common/Logging.h"

#include <pulse/error.h>
#include <pulse/simple.h>

#include <cmath>
#include <numbers>
#include <vector>

namespace {

constexpr int rate = 48000;
constexpr int frames = rate * 60 / 1000;
constexpr double frequency = 880;
constexpr double amplitude = 0.1;

// A sine with a raised-cosine envelope, so it starts and ends without a click.
std::vector<float> blip()
{
    std::vector<float> samples(frames);
    for (int i = 0; i < frames; ++i) {
        const double envelope = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * i / (frames - 1));
        samples[static_cast<size_t>(i)] = static_cast<float>(
            amplitude * envelope * std::sin(2 * std::numbers::pi * frequency * i / rate));
    }
    return samples;
}

} // namespace

PulseAlertSound::PulseAlertSound(QByteArray server)
    : m_server(std::move(server))
{ }

void PulseAlertSound::play()
{
    const pa_sample_spec spec { PA_SAMPLE_FLOAT32NE, rate, 1 };
    // A buffer no longer than the sound: with the server's default of two seconds the
    // output would be held at a long latency, which is what delays a monitor's first
    // blocks; a short one brings the output down to ours and the sound plays at once.
    constexpr auto unset = static_cast<uint32_t>(-1);
    const pa_buffer_attr buffer { unset, static_cast<uint32_t>(frames * sizeof(float)), unset, unset, unset };
    int error = 0;
    pa_simple *stream = pa_simple_new(m_server.isEmpty() ? nullptr : m_server.constData(), "Selvaro Recorder",
        PA_STREAM_PLAYBACK, nullptr, "Recording started", &spec, nullptr, &buffer, &error);
    if (!stream) {
        qCDebug(lcDualRecorder, "No alert sound: %s", pa_strerror(error));
        return;
    }
    const std::vector<float> samples = blip();
    if (pa_simple_write(stream, samples.data(), samples.size() * sizeof(float), &error) < 0
        || pa_simple_drain(stream, &error) < 0)
        qCDebug(lcDualRecorder, "Alert sound failed: %s", pa_strerror(error));
    pa_simple_free(stream);
}
