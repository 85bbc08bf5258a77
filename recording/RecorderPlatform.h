#pragma once

#include "audio/CapturePermission.h"
#include "audio/RecordingCapture.h"
#include "common/Clock.h"
#include "recording/SleepInhibitor.h"
#include "service/NetworkStatus.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>

class AlertSound;
class ChosenSourceServer;
class SoundServer;

// Everything platform-bound the recorder flow uses, handed to it whole in its
// constructor: how a recording's capture is made, the two permissions, the clock, the
// folder the recordings go into, the free space there, what keeps the computer awake
// while recording and whether it is online. The flow takes ownership of all of it.
//
// A member left empty is simply absent: no factory means a record() that fails to
// start, no permission reads as `unknown`, no clock is real time, an empty folder is
// RecordingsFolder::defaultPath(), no free-space reader is the file system's answer, no
// inhibitor lets the computer sleep, no network status is the platform's
// (QtNetworkStatus).
struct RecorderPlatform
{
    // Kept alive for the permissions, which probe it until they are destroyed; the
    // factory keeps its own reference for the captures.
    std::shared_ptr<SoundServer> soundServer;
    // The system-audio source the user chose, applied to the captures; none in a preview.
    std::shared_ptr<ChosenSourceServer> chosenSource;
    CaptureFactory makeCapture;
    std::unique_ptr<CapturePermission> microphone;
    std::unique_ptr<CapturePermission> systemAudio;
    std::shared_ptr<Clock> clock;
    QString recordingsFolder;
    std::unique_ptr<SleepInhibitor> sleepInhibitor;
    // Bytes free for the user on the file system of `folder`; nothing when unknown.
    std::function<std::optional<qint64>(const QString &folder)> freeSpace;
    std::shared_ptr<NetworkStatus> network;

    // The application's platform: a DualRecorder on `server` per recording (playing
    // `alertSound` at each start), the microphone and system-audio permissions probed
    // on the same server, real time, the private recordings folder, and the desktop's
    // sleep inhibitor.
    //   RecorderFlow recorder(api, store, RecorderPlatform::onSoundServer(
    //       std::make_shared<PulseSoundServer>(), std::make_shared<PulseAlertSound>()));
    [[nodiscard]] static RecorderPlatform onSoundServer(std::shared_ptr<SoundServer> server,
        std::shared_ptr<AlertSound> alertSound, QString recordingsFolder = {});

    // This platform with its empty clock, folder, free-space reader and network status
    // given their real value.
    [[nodiscard]] RecorderPlatform withDefaults() &&;
};
