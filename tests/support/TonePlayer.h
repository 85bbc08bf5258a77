#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <atomic>
#include <thread>

// Runs `pactl` against the test's private sound server (PULSE_SERVER from the
// fixture) and returns its standard output; empty and `ok` false on failure.
QString pactl(const QStringList &arguments, bool *ok = nullptr);

// Unloads every sink and source of the fixture: a computer without audio devices.
[[nodiscard]] bool unloadAllDevices();

// Plays a sine tone (mono, half scale, 48 kHz unless told) into a sink of the test's sound server
// until destroyed or stop(), so that a capture has something to hear. A named sink
// keeps the tone when the default sink changes; its 50 ms buffer keeps the sink's
// latency low, which a monitor needs to deliver at once.
class TonePlayer
{
public:
    // `sink` is a sink name ("speakers", "micfeed"); empty plays to the default sink.
    // Played at the sink's own `rate`, a tone keeps the server from switching an idle
    // sink to 48 kHz.
    explicit TonePlayer(double frequency, QByteArray sink = {}, int rate = 48000);
    ~TonePlayer() { stop(); }
    TonePlayer(const TonePlayer &) = delete;
    TonePlayer &operator=(const TonePlayer &) = delete;

    // True once the stream plays.
    [[nodiscard]] bool isPlaying() const { return m_thread.joinable(); }
    void stop();

private:
    std::atomic<bool> m_stopping { false };
    std::thread m_thread;
};
