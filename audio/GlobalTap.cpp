#include "audio/GlobalTap.h"

#include "common/Logging.h"

GlobalTap::GlobalTap(SoundServer &server)
    : m_server(server)
{ }

GlobalTap::~GlobalTap()
{
    invalidate();
}

void GlobalTap::activate()
{
    if (m_activated)
        return;
    m_activated = true;
    m_errorMessage.clear();
    qCDebug(lcGlobalTap) << "activate()";
    auto output = m_server.defaultOutput();
    if (auto *error = std::get_if<AudioObjectError>(&output)) {
        qCCritical(lcGlobalTap).noquote() << error->message;
        m_errorMessage = error->message;
        return;
    }
    m_device = std::get<OutputDevice>(output);
    qCDebug(lcGlobalTap).noquote() << "Default output" << m_device->name << "monitored through"
                                   << m_device->monitorSource;
    // Never the output's own rate: the mixer lays this file beside the microphone's
    // sample for sample, so a 44.1 kHz sink (PulseAudio's default) or a 16 kHz headset
    // must reach the file at 48000 Hz. The server resamples and downmixes.
    m_tapStreamDescription = SampleSpec { SampleSpec::Sample::float32, sampleRate, channels };
}

std::optional<GlobalTapError> GlobalTap::run(IOBlock ioBlock)
{
    m_errorMessage.clear();
    qCDebug(lcGlobalTap) << "Run tap!";
    if (!m_device || !m_tapStreamDescription)
        return GlobalTapError { QStringLiteral("Failed to start audio device: ") + m_errorMessage };
    auto capture = m_server.startOutputCapture(*m_device, *m_tapStreamDescription, std::move(ioBlock));
    if (auto *error = std::get_if<QString>(&capture))
        return GlobalTapError { QStringLiteral("Failed to start audio device: ") + *error };
    m_capture = std::move(std::get<std::unique_ptr<Capture>>(capture));
    return std::nullopt;
}

void GlobalTap::invalidate()
{
    if (!m_activated)
        return;
    qCDebug(lcGlobalTap) << "invalidate()";
    m_activated = false;
    // Reverse order of creation: the stream, then what was read to make it.
    m_capture.reset();
    m_device.reset();
}

Capture::Counters GlobalTap::counters() const
{
    return m_capture ? m_capture->counters() : Capture::Counters {};
}

void GlobalTap::setOrigin(std::chrono::steady_clock::time_point origin)
{
    if (m_capture)
        m_capture->setOrigin(origin);
}

void GlobalTap::catchUp()
{
    if (m_capture)
        m_capture->catchUp();
}
