#pragma once

#include "audio/AlertSound.h"
#include "audio/SoundServer.h"

#include <atomic>
#include <map>

// A sound server for tests of the dual recorder's logic: each capture hands its
// recorder a fixed tone the moment it starts (on the caller's thread), or is refused.
class FakeSoundServer final : public SoundServer
{
public:
    struct Source
    {
        bool refuse = false;
        double frequency = 0;
        long long frames = 0; // delivered when the capture starts
    };

    std::map<CaptureSource, Source> sources{{CaptureSource::systemOutput, {}}, {CaptureSource::defaultInput, {}}};
    std::map<CaptureSource, int> started;
    std::map<CaptureSource, int> live;
    std::map<CaptureSource, bool> suspended;

    std::variant<OutputDevice, AudioObjectError> defaultOutput() override;
    std::variant<std::unique_ptr<Capture>, QString> startCapture(CaptureSource source, const SampleSpec &spec,
                                                                 BlockHandler onBlock) override;
    Permission probe(CaptureSource) override { return Permission::granted; }
};

class CountingAlertSound final : public AlertSound
{
public:
    std::atomic<int> plays = 0;
    void play() override { ++plays; }
};
