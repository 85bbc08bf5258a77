#include "recording/RecorderPermissions.h"

#include "common/Observable.h"

namespace {

Permission statusOf(const std::unique_ptr<CapturePermission> &probe)
{
    return probe ? probe->status() : Permission::unknown;
}

} // namespace

RecorderPermissions::RecorderPermissions(std::unique_ptr<CapturePermission> microphone,
    std::unique_ptr<CapturePermission> systemAudio, std::shared_ptr<Clock> clock, QObject *parent)
    : QObject(parent)
    , m_microphoneProbe(std::move(microphone))
    , m_systemAudioProbe(std::move(systemAudio))
    , m_poll(std::move(clock))
{
    // The probes answer some time after they were asked (at construction, on
    // activation, after a request), so their changes are followed rather than only
    // read when told to.
    for (CapturePermission *probe : { m_microphoneProbe.get(), m_systemAudioProbe.get() }) {
        if (probe)
            connect(probe, &CapturePermission::statusChanged, this, &RecorderPermissions::refresh);
    }
    refresh();
}

RecorderPermissions::~RecorderPermissions() = default;

void RecorderPermissions::refresh()
{
    if (m_frozen)
        return;
    setIfChanged(m_microphone, statusOf(m_microphoneProbe), this, &RecorderPermissions::microphoneChanged);
    setIfChanged(m_systemAudio, statusOf(m_systemAudioProbe), this, &RecorderPermissions::systemAudioChanged);
}

void RecorderPermissions::probe()
{
    if (m_frozen)
        return;
    for (CapturePermission *probe : { m_microphoneProbe.get(), m_systemAudioProbe.get() }) {
        if (probe)
            probe->updateStatus();
    }
}

void RecorderPermissions::requestMicrophone()
{
    if (m_frozen || !m_microphoneProbe)
        return;
    // The answer itself is not used: both are simply read again.
    connect(m_microphoneProbe.get(), &CapturePermission::requestFinished, this, &RecorderPermissions::refresh,
        Qt::SingleShotConnection);
    m_microphoneProbe->request();
}

void RecorderPermissions::requestSystemAudio()
{
    if (m_frozen)
        return;
    if (m_systemAudioProbe)
        m_systemAudioProbe->request();
    // Bounded: a permission that never becomes known stops being polled.
    m_poll.start(
        pollInterval,
        [this] {
            refresh();
            return m_systemAudio == Permission::unknown;
        },
        pollAttempts);
}

void RecorderPermissions::freeze(Permission microphone, Permission systemAudio)
{
    m_poll.stop();
    setIfChanged(m_microphone, microphone, this, &RecorderPermissions::microphoneChanged);
    setIfChanged(m_systemAudio, systemAudio, this, &RecorderPermissions::systemAudioChanged);
    m_frozen = true;
}
