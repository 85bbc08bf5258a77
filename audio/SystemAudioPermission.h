#pragma once

#include "audio/CapturePermission.h"

// Permission to capture what the computer plays: probes the monitor of the
// default output. Logs under "SystemAudioPermission".
class SystemAudioPermission : public CapturePermission
{
    Q_OBJECT

public:
    explicit SystemAudioPermission(SoundServer &server, QObject *parent = nullptr);
};
