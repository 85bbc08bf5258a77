#pragma once

#include "audio/SourceRecorder.h"

// Records the default input (the microphone) at 48000 Hz mono into a 16-bit PCM WAV.
// Pausing suspends the stream at the server, so paused time is simply absent from the
// file; resuming appends to the same file. Logs under "MicRecorder"; its writer thread
// has that name too.
class MicRecorder final : public SourceRecorder
{
public:
    static constexpr int sampleRate = 48000;
    static constexpr int channels = 1;

    // `server` must outlive the recorder; nothing is opened before start().
    MicRecorder(QString filePath, SoundServer &server);

private:
    // A file that cannot be created fails with its own reason; a capture that cannot
    // begin (no server, no input, access refused) with "Failed to start microphone recording".
    [[nodiscard]] Opened open(AudioFileWriter &file, SoundServer::BlockHandler toFile) override;

    SoundServer &m_server;
};
