#include "audio/GlobalTap.h"

#include "common/Logging.h"
#include "common/Observable.h"

GlobalTap::GlobalTap(SoundServer &server, bool muteWhenRunning, QObject *parent)
    : QObject(parent)
    , m_server(server)
    , m_muteWhenRunning(muteWhenRunning)
{
}

GlobalTap::~GlobalTap()
{
    invalidate();
}

void GlobalTap::setErrorMessage(const QString &message)
{
    setIfChanged(m_errorMessage, message, this, &GlobalTap::errorMessageChanged);
}

void GlobalTap::activate()
{
    if (m_activated)
        return;
    m_activated = true;
    setErrorMessage({});
    qCDebug(lcGlobalTap) << "activate()";
    if (auto error = setUp()) {
        qCCritical(lcGlobalTap).noquote() << error->message;
        setErrorMessage(error->message);
    }
}

std::optional<GlobalTapError> GlobalTap::setUp()
{
    auto output = m_server.defaultOutput();
    if (auto *error = std::get_if<AudioObjectError>(&output))
        return GlobalTapError { error->message };
    m_device = std::get<OutputDevice>(output);
    qCDebug(lcGlobalTap).noquote() << "Default output" << m_device->name << "monitored through"
                                   << m_device->monitorSource;
    if (m_muteWhenRunning) {
        // A monitor carries what the sink plays after its volume, so muting the
        // sink would silence the capture too; the output stays audible.
        qCWarning(lcGlobalTap) << "Muting while capturing is not available on this sound server";
    }
    // Always stereo float at the output's own rate: the server downmixes and
    // converts, so the file's format does not depend on the hardware.
    m_tapStreamDescription = SampleSpec { SampleSpec::Sample::float32, m_device->spec.rate, 2 };
    return std::nullopt;
}

std::optional<GlobalTapError> GlobalTap::run(IOBlock ioBlock, InvalidationHandler invalidationHandler)
{
    setErrorMessage({});
    qCDebug(lcGlobalTap) << "Run tap!";
    m_invalidationHandler = std::move(invalidationHandler);
    if (!m_tapStreamDescription)
        return GlobalTapError { QStringLiteral("Failed to start audio device: ") + m_errorMessage };
    auto capture = m_server.startCapture(CaptureSource::systemOutput, *m_tapStreamDescription, std::move(ioBlock));
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
    if (m_invalidationHandler)
        std::exchange(m_invalidationHandler, {})(*this);
    // Reverse order of creation: the stream, then what was read to make it.
    m_capture.reset();
    m_device.reset();
}

Capture::Counters GlobalTap::counters() const
{
    return m_capture ? m_capture->counters() : Capture::Counters {};
}

void GlobalTap::catchUp()
{
    if (m_capture)
        m_capture->catchUp();
}
