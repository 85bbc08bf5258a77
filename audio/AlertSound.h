#pragma once

// A short sound played once when a recording starts. Its job is to make some output
// appear at once, so that the system-audio capture delivers blocks from the first
// moment; a quiet sound is enough.
//
// Thread contract: play() blocks until the sound has been handed to the sound server
// and may be called from any thread, several at a time.
class AlertSound
{
public:
    virtual ~AlertSound() = default;
    AlertSound() = default;
    AlertSound(const AlertSound &) = delete;
    AlertSound &operator=(const AlertSound &) = delete;

    virtual void play() = 0;
};
