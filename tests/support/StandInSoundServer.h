#pragma once

#include "audio/SoundServer.h"

#include <atomic>
#include <cmath>
#include <map>
#include <numbers>
#include <vector>

// A sound server for what stands on one: a capture hands its recorder `frames` of its
// source's tone when it starts and more on deliver(), nothing while suspended; or it is
// refused. The permission probes answer each source's own value, from any thread.
class StandInSoundServer final : public SoundServer
{
public:
    struct Source
    {
        bool refuse = false;
        double frequency = 0;
        double amplitude = 0.5; // of full scale: tells the sources' levels apart
        long long frames = 0; // delivered when the capture starts
        int live = 0;
        bool suspended = false;
        SampleSpec spec {};
        BlockHandler onBlock {};
    };
    std::map<CaptureSource, Source> sources { { CaptureSource::systemOutput, {} },
        { CaptureSource::defaultInput, {} } };
    bool noOutput = false;
    int outputReads = 0;
    std::atomic<Permission> microphone { Permission::unknown };
    std::atomic<Permission> systemAudio { Permission::unknown };
    std::atomic<int> probes { 0 };

    std::variant<OutputDevice, AudioObjectError> defaultOutput() override
    {
        ++outputReads;
        if (noOutput)
            return AudioObjectError { QStringLiteral("Error reading data for default sink: No such entity") };
        return OutputDevice { QStringLiteral("speakers"), { SampleSpec::Sample::float32, 48000, 2 }, {} };
    }
    std::variant<std::unique_ptr<Capture>, QString> startCapture(
        CaptureSource source, const SampleSpec &spec, BlockHandler onBlock) override
    {
        Source &s = sources[source];
        if (s.refuse)
            return QStringLiteral("Access denied");
        s.spec = spec;
        s.onBlock = std::move(onBlock);
        deliver(source, s.frames);
        return std::make_unique<ToneCapture>(s);
    }
    std::variant<std::unique_ptr<Capture>, QString> startOutputCapture(
        const OutputDevice &, const SampleSpec &spec, BlockHandler onBlock) override
    {
        return startCapture(CaptureSource::systemOutput, spec, std::move(onBlock));
    }
    Permission probe(CaptureSource source) override
    {
        ++probes;
        return source == CaptureSource::defaultInput ? microphone.load() : systemAudio.load();
    }

    // `frames` more of the source's tone, unless its capture is suspended (a corked stream).
    void deliver(CaptureSource source, long long frames)
    {
        Source &s = sources[source];
        if (frames <= 0 || s.suspended || !s.onBlock)
            return;
        std::vector<float> samples(static_cast<size_t>(frames * s.spec.channels));
        for (size_t i = 0; i < samples.size(); ++i)
            samples[i] = static_cast<float>(s.amplitude
                * std::sin(2 * std::numbers::pi * s.frequency * double(i / s.spec.channels) / s.spec.rate));
        s.onBlock(samples.data(), frames);
    }

private:
    // Its suspension ends with it, as a stream's does.
    struct ToneCapture final : Capture
    {
        explicit ToneCapture(Source &s)
            : source(s)
        {
            ++source.live;
        }
        ~ToneCapture() override
        {
            --source.live;
            source.onBlock = nullptr;
            source.suspended = false;
        }
        void setSuspended(bool suspended) override { source.suspended = suspended; }
        void catchUp() override { }
        Counters counters() const override { return {}; }
        Source &source;
    };
};
