#pragma once

#include "audio/CapturePermission.h"

// Permission to record the microphone: probes the default input. Logs under
// "MicRecorder", the microphone's category.
class MicrophonePermission : public CapturePermission
{
    Q_OBJECT

public:
    explicit MicrophonePermission(SoundServer &server, QObject *parent = nullptr);
};
