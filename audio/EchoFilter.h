#pragma once

#include "audio/EchoDetector.h"
#include "audio/EchoRemover.h"

#include <functional>
#include <vector>

// The mix's microphone channel with the speakers' echo taken out, where there is any.
// It sits between laying out the two channels and the encoder, in both mixes alike
// (MixEncoder), so the live mix and the mix of the finished files give the same bytes.
//
// It holds the stream back one window (windowFrames) and decides per window:
// EchoDetector looks for the speakers in the microphone; where it finds them, the
// reference is delayed to where their echo is (so the canceller adapts from its first
// second instead of searching for ten), the canceller runs over the window, and its
// output is kept when it removed something. Everywhere else the microphone goes out
// sample for sample as it came in. The canceller runs over every window, echo or not,
// so that it stays adapted.
//
// Thread contract: not thread-safe; one thread at a time (the mixer's worker).
class EchoFilter
{
public:
    // Two seconds: long enough for the correlation to tell echo from chance, short
    // enough that the live mix stays close behind the recording.
    static constexpr int windowFrames = 2 * EchoRemover::sampleRate;
    // How late the canceller's output is against its input (its band filters): taken
    // out, so the cancelled and the raw microphone line up sample for sample.
    static constexpr int cancellerLatency = 383;
    // The reference is placed this much earlier than the echo found, to leave the
    // canceller's own delay search room on both sides.
    static constexpr int delayMargin = EchoRemover::frameFrames;

    // Receives decided frames: the speakers' channel and the microphone's. False when
    // they could not be taken (nothing more is then handed over).
    using Sink = std::function<bool(const float *left, const float *right, int frames)>;

    struct Report
    {
        long long windows = 0;
        long long echoWindows = 0;
        double inputEnergy = 0; // of the windows with echo
        double outputEnergy = 0;
        int delayFrames = -1; // the echo delay the reference was last placed for
    };

    EchoFilter();
    EchoFilter(const EchoFilter &) = delete;
    EchoFilter &operator=(const EchoFilter &) = delete;

    // Takes `frames` frames of both channels; hands every window now decided to `sink`.
    [[nodiscard]] bool push(const float *left, const float *right, int frames, const Sink &sink);
    // The end of the stream: decides and hands over the rest.
    [[nodiscard]] bool finish(const Sink &sink);

    [[nodiscard]] const Report &report() const { return m_report; }

private:
    // Runs the canceller on until the microphone up to `frame` has its output.
    void cancelUntil(long long frame);
    [[nodiscard]] bool decide(int frames, const Sink &sink);

    EchoRemover m_remover;
    // m_speakers holds maxDelayFrames frames before m_first, then what followed; the
    // other two begin at m_first, the first frame not yet handed over.
    std::vector<float> m_speakers;
    std::vector<float> m_microphone;
    std::vector<float> m_cancelled;
    long long m_first = 0;
    long long m_received = 0;
    long long m_fed = 0; // microphone frames given to the canceller
    int m_referenceDelay = 0;
    Report m_report;
};
