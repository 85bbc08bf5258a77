#include "audio/MicrophonePermission.h"

#include "common/Logging.h"

MicrophonePermission::MicrophonePermission(SoundServer &server, QObject *parent)
    : CapturePermission(server, CaptureSource::defaultInput, lcMicRecorder(), parent)
{ }
