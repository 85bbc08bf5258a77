#include "audio/SystemAudioPermission.h"

#include "common/Logging.h"

SystemAudioPermission::SystemAudioPermission(SoundServer &server, QObject *parent)
    : CapturePermission(server, CaptureSource::systemOutput, lcSystemAudioPermission(), parent)
{ }
