#pragma once

#include <memory>

namespace webrtc {
class AudioProcessing;
}

// The speakers' echo taken out of the microphone: WebRTC's echo canceller (the
// webrtc-audio-processing 0.3 library), fed what the speakers played as its reference.
//
// Set up as PulseAudio's and PipeWire's echo-cancel modules set it up for a desktop:
// the extended filter (a longer echo tail, slower but steadier adaptation) and
// delay-agnostic mode (the canceller finds the delay between the reference and its
// echo itself, so the reported delay stays 0); noise suppression, gain control and the
// high-pass filter stay off, so that what is not echo reaches the file as it was
// captured. Both streams are 48000 Hz mono, taken 10 ms at a time.
//
// Thread contract: not thread-safe; one thread at a time (the mixer's worker).
class EchoRemover
{
public:
    static constexpr int sampleRate = 48000;
    // Frames of one call to process(): 10 ms, what the canceller takes.
    static constexpr int frameFrames = sampleRate / 100;

    EchoRemover();
    ~EchoRemover();
    EchoRemover(const EchoRemover &) = delete;
    EchoRemover &operator=(const EchoRemover &) = delete;

    // One frame: `reference` is what the speakers played over it, `microphone` what the
    // microphone heard, replaced by the microphone less the echo it found. Full scale
    // is ±1.
    void process(const float *reference, float *microphone);

    // The canceller's own view of the last frame: false when it almost certainly held
    // no echo.
    [[nodiscard]] bool heardEcho() const;
    // The delay the canceller found between the reference and its echo, in ms: the
    // median of the last second; -1 before it knows.
    [[nodiscard]] int delayMilliseconds() const;

private:
    std::unique_ptr<webrtc::AudioProcessing> m_processing;
};
