#include "recording/RecorderPlatform.h"

#include "audio/MicrophonePermission.h"
#include "audio/SystemAudioPermission.h"
#include "recording/DualRecorderCapture.h"

RecorderPlatform RecorderPlatform::onSoundServer(std::shared_ptr<SoundServer> server,
                                                 std::shared_ptr<AlertSound> alertSound, QString recordingsFolder)
{
    RecorderPlatform platform;
    platform.soundServer = server;
    platform.makeCapture = [server, alertSound](const QString &folder) -> std::shared_ptr<RecordingCapture> {
        return std::make_shared<DualRecorderCapture>(folder, server, alertSound);
    };
    platform.microphone = std::make_unique<MicrophonePermission>(*server);
    platform.systemAudio = std::make_unique<SystemAudioPermission>(*server);
    platform.recordingsFolder = std::move(recordingsFolder);
    return platform;
}
