#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// Runs `pactl` against the test's private sound server (PULSE_SERVER from the
// fixture) and returns its standard output; empty and `ok` false on failure.
QString pactl(const QStringList &arguments, bool *ok = nullptr);

// Unloads every sink and source of the fixture: a computer without audio devices.
[[nodiscard]] bool unloadAllDevices();

// Plays a sine tone into a sink of the test's sound server until destroyed (or stop()):
// PulseAudio's own generator (module-sine, half scale), so that a capture has
// something to hear. The frequency is a whole number of hertz.
class TonePlayer
{
public:
    // `sink` is a sink name ("speakers", "micfeed"); empty plays to the default sink.
    explicit TonePlayer(double frequency, QByteArray sink = {});
    ~TonePlayer() { stop(); }
    TonePlayer(const TonePlayer &) = delete;
    TonePlayer &operator=(const TonePlayer &) = delete;

    // True once the generator plays.
    [[nodiscard]] bool isPlaying() const { return !m_module.isEmpty(); }
    void stop();

private:
    QString m_module;
};
