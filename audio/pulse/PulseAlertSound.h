#pragma once

#include "audio/AlertSound.h"

#include <QByteArray>

// The alert sound through libpulse's simple API: a 60 ms soft 880 Hz blip on the
// default output. Each play() has a connection of its own, so plays never share
// state; a missing server only costs a debug line.
class PulseAlertSound final : public AlertSound
{
public:
    // `server` is a libpulse server string; empty uses libpulse's default, which
    // honours PULSE_SERVER.
    explicit PulseAlertSound(QByteArray server = {});

    void play() override;

private:
    const QByteArray m_server;
};
