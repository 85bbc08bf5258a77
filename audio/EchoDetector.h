#pragma once

// Whether one window of the microphone holds the speakers' echo, and how late: the
// normalised cross-correlation of the two, both averaged down to 6000 Hz and whitened
// by a first difference, at every delay up to maxDelayFrames. An echo is the speakers' sound a fixed time
// later, so its correlation peaks at that delay; a microphone that hears no speaker (a headset) correlates
// with nothing. Plain arithmetic, no state: what the echo filter asks once per window, before its canceller
// runs over it.
//
// Thread contract: none needed (static functions).
class EchoDetector
{
public:
    // 48000 Hz frames averaged into one, for the correlation.
    static constexpr int decimation = 8;
    // The longest delay looked for between the speakers and their echo: the output's
    // latency, the way through the room and the input's latency together reach several
    // hundred milliseconds.
    static constexpr int maxDelayFrames = 48000 * 7 / 10;
    // The correlation from which a window counts as holding echo. Two unrelated
    // voices reached 0.12 at most over a hundred windows of the test room; the far end
    // alone in a room with 0.6 s of reverberation 0.3 at least, whatever its level.
    static constexpr double echoCorrelation = 0.2;
    // The delay is the first at which the correlation reaches this share of its peak.
    static constexpr double directShare = 0.6;
    // How much the canceller has to take out of a window with echo for its output to
    // be kept (dB of the window's energy): less is nothing removed, and the input stays.
    static constexpr double leastReductionDb = 1.0;

    struct Finding
    {
        bool echo = false;
        int delayFrames = 0; // where the echo begins (48000 Hz frames)
        double correlation = 0; // the correlation's peak
    };

    // `speakers` holds maxDelayFrames frames before the window and then the window's
    // `frames`; `microphone` the window's `frames`.
    [[nodiscard]] static Finding find(const float *speakers, const float *microphone, int frames);

    // Whether the canceller's output replaces the microphone for a window: only where
    // the window holds echo and the canceller removed some of it (energies as sums of
    // squares over the window).
    [[nodiscard]] static bool keepsCancelled(const Finding &finding, double inputEnergy, double outputEnergy);
};
