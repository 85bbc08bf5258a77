#pragma once

#include <QString>

#include <cstdint>
#include <optional>
#include <vector>

// A room for the echo canceller: a far-end talker played into the speakers, and a
// microphone that hears the far end through the room (a synthetic impulse response:
// bulk delay, exponential reverberation, attenuation) together with a near-end
// talker and low noise. Speech is spoken by espeak-ng in two voices; everything else is
// generated from a seed, so the same options give the same samples.
//
// The recording is laid out in a cycle of segments, repeated: far end alone, silence,
// near end alone, silence, both at once, silence. All signals are 48000 Hz mono.
class EchoRoom
{
public:
    static constexpr int rate = 48000;

    struct Options
    {
        double seconds = 20;
        double delaySeconds = 0.25; // bulk delay from the speakers to the microphone
        double reverbSeconds = 0.4; // time for the reverberation to fall by 60 dB
        double attenuationDb = 12; // of the echo's energy against what the speakers play
        bool echo = true; // false: a headset, the microphone hears no speaker
        uint32_t seed = 25;
    };

    enum class Segment { farEnd, nearEnd, both, silence };
    struct Span
    {
        Segment segment;
        long long begin; // frames
        long long end;
    };

    // The figures of one output of the canceller (the microphone channel) against this
    // room; see docs/mixer.md for their definitions.
    struct Figures
    {
        double erleDb = 0; // far end alone, after the first 2 s
        double nearEndChangeDb = 0; // near end alone: the output's level against the input's
        double nearEndCorrelation = 0; // near end alone: output against input
        double doubleTalkDropDb = 0; // the near-end talker's level, both at once against alone
    };

    // Speaks both talkers (espeak-ng) and builds the room: the error text when
    // espeak-ng cannot be run.
    [[nodiscard]] static std::optional<QString> make(const Options &options, EchoRoom *room);

    [[nodiscard]] const std::vector<float> &speakers() const { return m_speakers; }
    [[nodiscard]] const std::vector<float> &microphone() const { return m_microphone; }
    [[nodiscard]] const std::vector<float> &nearEnd() const { return m_nearEnd; }
    [[nodiscard]] const std::vector<Span> &spans() const { return m_spans; }

    // The speakers as a stereo 32-bit float WAV (the system track's format) and the
    // microphone as a mono 16-bit WAV (the microphone track's), as the recorder writes
    // them.
    [[nodiscard]] bool writeSpeakers(const QString &path) const;
    [[nodiscard]] bool writeMicrophone(const QString &path) const;

    [[nodiscard]] Figures measure(const std::vector<float> &output) const;

private:
    std::vector<float> m_speakers;
    std::vector<float> m_nearEnd;
    std::vector<float> m_microphone;
    std::vector<Span> m_spans;
};
