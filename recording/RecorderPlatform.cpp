#include "recording/RecorderPlatform.h"

#include "audio/ChosenSourceServer.h"
#include "audio/DualRecorder.h"
#include "audio/MicrophonePermission.h"
#include "audio/RecordingsFolder.h"
#include "audio/SpeakerEchoSetting.h"
#include "audio/SystemAudioPermission.h"
#include "common/SystemClock.h"
#include "recording/DesktopSleepInhibitor.h"
#include "service/QtNetworkStatus.h"

RecorderPlatform RecorderPlatform::onSoundServer(
    std::shared_ptr<SoundServer> server, std::shared_ptr<AlertSound> alertSound, QString recordingsFolder)
{
    RecorderPlatform platform;
    platform.chosenSource = std::make_shared<ChosenSourceServer>(server);
    server = platform.chosenSource;
    platform.soundServer = server;
    platform.makeCapture = DualRecorder::factory(server, std::move(alertSound), SpeakerEchoSetting::isOn);
    platform.microphone = std::make_unique<MicrophonePermission>(*server);
    platform.systemAudio = std::make_unique<SystemAudioPermission>(*server);
    platform.recordingsFolder = std::move(recordingsFolder);
    platform.sleepInhibitor = std::make_unique<DesktopSleepInhibitor>();
    return platform;
}

RecorderPlatform RecorderPlatform::withDefaults() &&
{
    if (!clock)
        clock = std::make_shared<SystemClock>();
    if (recordingsFolder.isEmpty())
        recordingsFolder = RecordingsFolder::defaultPath();
    if (!freeSpace)
        freeSpace = RecordingsFolder::freeSpace;
    if (!network)
        network = std::make_shared<QtNetworkStatus>();
    return std::move(*this);
}
