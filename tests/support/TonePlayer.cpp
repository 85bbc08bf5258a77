#include "support/TonePlayer.h"

#include <cmath>
#include <numbers>
#include <vector>

#include <pulse/pulseaudio.h>

struct TonePlayer::State
{
    double frequency = 0;
    double phase = 0;
    pa_threaded_mainloop *mainloop = nullptr;
    pa_context *context = nullptr;
    pa_stream *stream = nullptr;
    QByteArray sink;
    bool playing = false;

    static void onContext(pa_context *context, void *userdata)
    {
        auto *state = static_cast<State *>(userdata);
        if (pa_context_get_state(context) == PA_CONTEXT_READY)
            state->open();
        pa_threaded_mainloop_signal(state->mainloop, 0);
    }

    void open()
    {
        const pa_sample_spec spec { PA_SAMPLE_FLOAT32NE, 48000, 1 };
        stream = pa_stream_new(context, "Test tone", &spec, nullptr);
        pa_stream_set_write_callback(
            stream, [](pa_stream *s, size_t bytes, void *userdata) { static_cast<State *>(userdata)->write(s, bytes); },
            this);
        pa_stream_set_state_callback(
            stream,
            [](pa_stream *s, void *userdata) {
                auto *state = static_cast<State *>(userdata);
                state->playing = pa_stream_get_state(s) == PA_STREAM_READY;
                pa_threaded_mainloop_signal(state->mainloop, 0);
            },
            this);
        const pa_buffer_attr attributes { static_cast<uint32_t>(-1), static_cast<uint32_t>(pa_usec_to_bytes(50000, &spec)),
                                          static_cast<uint32_t>(-1), static_cast<uint32_t>(-1), static_cast<uint32_t>(-1) };
        pa_stream_connect_playback(stream, sink.isEmpty() ? nullptr : sink.constData(), &attributes,
                                   PA_STREAM_ADJUST_LATENCY, nullptr, nullptr);
    }

    void write(pa_stream *s, size_t bytes)
    {
        std::vector<float> samples(bytes / sizeof(float));
        const double step = 2 * std::numbers::pi * frequency / 48000;
        for (float &sample : samples) {
            sample = static_cast<float>(0.5 * std::sin(phase));
            phase = std::fmod(phase + step, 2 * std::numbers::pi);
        }
        pa_stream_write(s, samples.data(), samples.size() * sizeof(float), nullptr, 0, PA_SEEK_RELATIVE);
    }
};

TonePlayer::TonePlayer(double frequency, QByteArray sink)
    : m_state(std::make_unique<State>())
{
    m_state->frequency = frequency;
    m_state->sink = std::move(sink);
    m_state->mainloop = pa_threaded_mainloop_new();
    pa_threaded_mainloop_lock(m_state->mainloop);
    pa_threaded_mainloop_start(m_state->mainloop);
    m_state->context = pa_context_new(pa_threaded_mainloop_get_api(m_state->mainloop), "Selvaro tests");
    pa_context_set_state_callback(m_state->context, &State::onContext, m_state.get());
    pa_context_connect(m_state->context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr);
    // Bounded: a test without a server fails on isPlaying() instead of hanging.
    for (int i = 0; i < 200 && !m_state->playing && PA_CONTEXT_IS_GOOD(pa_context_get_state(m_state->context)); ++i) {
        pa_threaded_mainloop_unlock(m_state->mainloop);
        pa_msleep(10);
        pa_threaded_mainloop_lock(m_state->mainloop);
    }
    pa_threaded_mainloop_unlock(m_state->mainloop);
}

TonePlayer::~TonePlayer()
{
    stop();
    pa_threaded_mainloop_stop(m_state->mainloop);
    pa_threaded_mainloop_free(m_state->mainloop);
}

bool TonePlayer::isPlaying() const
{
    pa_threaded_mainloop_lock(m_state->mainloop);
    const bool playing = m_state->playing;
    pa_threaded_mainloop_unlock(m_state->mainloop);
    return playing;
}

void TonePlayer::stop()
{
    pa_threaded_mainloop_lock(m_state->mainloop);
    if (m_state->stream) {
        pa_stream_set_write_callback(m_state->stream, nullptr, nullptr);
        pa_stream_set_state_callback(m_state->stream, nullptr, nullptr);
        pa_stream_disconnect(m_state->stream);
        pa_stream_unref(m_state->stream);
        m_state->stream = nullptr;
    }
    if (m_state->context) {
        pa_context_set_state_callback(m_state->context, nullptr, nullptr);
        pa_context_disconnect(m_state->context);
        pa_context_unref(m_state->context);
        m_state->context = nullptr;
    }
    m_state->playing = false;
    pa_threaded_mainloop_unlock(m_state->mainloop);
}
