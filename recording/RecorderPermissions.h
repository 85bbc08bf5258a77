#pragma once

#include "audio/CapturePermission.h"
#include "audio/Permission.h"
#include "common/Repeater.h"

#include <QObject>

#include <chrono>
#include <memory>

class Clock;

// The recorder's two permissions, the microphone and system audio, as the screen
// shows them: read from their probes, followed when a probe answers later, asked for
// again on request. System audio has no answer of its own on request, so it is read
// every second until it is known, at most ten times.
//
// Thread contract: main thread only. The probes must outlive nothing: this object
// owns them, and whoever owns this object keeps their sound server alive longer.
class RecorderPermissions : public QObject
{
    Q_OBJECT
    Q_PROPERTY(Permission microphone READ microphone NOTIFY microphoneChanged)
    Q_PROPERTY(Permission systemAudio READ systemAudio NOTIFY systemAudioChanged)

public:
    static constexpr std::chrono::milliseconds pollInterval { 1000 };
    static constexpr int pollAttempts = 10;

    // A missing probe reads as unknown. Reads both at once.
    RecorderPermissions(std::unique_ptr<CapturePermission> microphone,
        std::unique_ptr<CapturePermission> systemAudio, std::shared_ptr<Clock> clock,
        QObject *parent = nullptr);
    ~RecorderPermissions() override;

    [[nodiscard]] Permission microphone() const { return m_microphone; }
    [[nodiscard]] Permission systemAudio() const { return m_systemAudio; }

    // Reads both again.
    void refresh();
    // Probes both sources again, for a change made while the application was in the
    // background (a device plugged in, the server restarted).
    void probe();
    // Asks again for the microphone; both are read when the answer is in.
    void requestMicrophone();
    // Asks again for system audio, then reads every second until it is known.
    void requestSystemAudio();
    // Shows these two from now on and ignores every action: a snapshot.
    void freeze(Permission microphone, Permission systemAudio);

Q_SIGNALS:
    void microphoneChanged();
    void systemAudioChanged();

private:
    std::unique_ptr<CapturePermission> m_microphoneProbe;
    std::unique_ptr<CapturePermission> m_systemAudioProbe;
    Repeater m_poll;
    Permission m_microphone = Permission::unknown;
    Permission m_systemAudio = Permission::unknown;
    bool m_frozen = false;
};
