#include "support/TonePlayer.h"

#include <QProcess>

#include <pulse/simple.h>

#include <cmath>
#include <numbers>
#include <vector>

TonePlayer::TonePlayer(double frequency, QByteArray sink, int rate)
{
    const pa_sample_spec spec { PA_SAMPLE_FLOAT32NE, static_cast<uint32_t>(rate), 1 };
    const pa_buffer_attr buffer { static_cast<uint32_t>(-1),
        static_cast<uint32_t>(pa_usec_to_bytes(50000, &spec)), static_cast<uint32_t>(-1),
        static_cast<uint32_t>(-1), static_cast<uint32_t>(-1) };
    pa_simple *stream = pa_simple_new(nullptr, "Selvaro tests", PA_STREAM_PLAYBACK,
        sink.isEmpty() ? nullptr : sink.constData(), "Test tone", &spec, nullptr, &buffer, nullptr);
    if (!stream)
        return;
    // Writing blocks while the buffer is full, which paces the loop in real time.
    m_thread = std::thread([this, stream, step = 2 * std::numbers::pi * frequency / rate] {
        std::vector<float> chunk(480);
        for (double phase = 0; !m_stopping;) {
            for (float &sample : chunk) {
                sample = static_cast<float>(0.5 * std::sin(phase));
                phase = std::fmod(phase + step, 2 * std::numbers::pi);
            }
            pa_simple_write(stream, chunk.data(), chunk.size() * sizeof(float), nullptr);
        }
        pa_simple_free(stream);
    });
}

void TonePlayer::stop()
{
    m_stopping = true;
    if (m_thread.joinable())
        m_thread.join();
}

QString pactl(const QStringList &arguments, bool *ok)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), arguments);
    const bool success = process.waitForFinished(5000) && process.exitStatus() == QProcess::NormalExit
        && process.exitCode() == 0;
    if (ok)
        *ok = success;
    return success ? QString::fromUtf8(process.readAllStandardOutput()).trimmed() : QString();
}

bool unloadAllDevices()
{
    bool source = false, sinks = false;
    pactl({ QStringLiteral("unload-module"), QStringLiteral("module-remap-source") }, &source);
    pactl({ QStringLiteral("unload-module"), QStringLiteral("module-null-sink") }, &sinks);
    // PipeWire's pulse server keeps a stand-in output ("auto_null") while there is no
    // other; PulseAudio has no such module loaded here.
    pactl({ QStringLiteral("unload-module"), QStringLiteral("module-always-sink") });
    return source && sinks;
}
