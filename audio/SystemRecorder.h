#pragma once

#include "audio/SourceRecorder.h"

class GlobalTap;

// Records what the computer plays, through a GlobalTap, into a 32-bit float WAV in
// the tap's format. Pausing makes the writer drop blocks, so the file holds only the
// unpaused spans back to back, with no silence for the pauses. Logs under
// "SystemRecorder"; its writer thread has that name too.
class SystemRecorder final : public SourceRecorder
{
public:
    // `server` must outlive the recorder; nothing is captured before start().
    SystemRecorder(QString filePath, SoundServer &server);

private:
    // Fails with a SystemRecorderError or the tap's GlobalTapError.
    [[nodiscard]] Opened open(AudioFileWriter &file, SoundServer::BlockHandler toFile) override;

    SoundServer &m_server;
};
