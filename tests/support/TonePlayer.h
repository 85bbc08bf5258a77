#pragma once

#include <QByteArray>

#include <memory>

// Plays a sine tone into a sink of the test's sound server until destroyed (or
// stop()), through its own libpulse playback stream, so that a capture has
// something to hear. Mono, 48 kHz, half scale.
class TonePlayer
{
public:
    // `sink` is a sink name ("speakers", "micfeed"); empty plays to the default sink.
    TonePlayer(double frequency, QByteArray sink = {});
    ~TonePlayer();
    TonePlayer(const TonePlayer &) = delete;
    TonePlayer &operator=(const TonePlayer &) = delete;

    // True once the stream plays.
    [[nodiscard]] bool isPlaying() const;
    void stop();

private:
    struct State;
    std::unique_ptr<State> m_state;
};
