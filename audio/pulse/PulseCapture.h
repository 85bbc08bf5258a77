#pragma once

#include "audio/SoundServer.h"
#include "audio/pulse/PulseConnection.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <vector>

// A libpulse record stream that keeps going: the capture behind SoundServer's
// startCapture (see there for the contract of the block handler).
//
// System output is captured from the explicit "<sink>.monitor" with the
// do-not-move flag. libpulse resolves "@DEFAULT_MONITOR@" only once, and when the
// monitored sink goes away the server quietly moves such a stream to the default
// source — the microphone — so the system file would record the user's voice.
// Instead this follows the default sink itself: on a server event naming a new
// default, or when its stream is killed with the sink, it connects to the current
// default's monitor. The microphone stream is connected to the default source and
// left to the server to move.
//
// What is delivered follows the monotonic clock, with suspended time left out, so
// that the two files of a recording stay side by side for hours:
// - the wait from start() to the first block is filled with silence, so the track
//   begins when the recording was asked for;
// - when the stream falls more than gapAfter behind the clock (a sink that plays
//   nothing and sends nothing, a suspended device, a switch, a lost server), the
//   ticker writes the gap as silence up to a block short of the present, which is
//   what is normally on its way; one log line per gap says where and how long;
// - when more arrives than the clock allows (a device clock running fast, or the
//   late burst of a stream whose gap was already filled), the excess is dropped:
//   beyond gapAfter at once from the front of the block (that time is already
//   written), below it a frame in every absorbStride, which nobody hears;
// - blocks arriving while suspended are dropped (they come after the pause).
// Blocks are placed by when they were heard: one with more queued behind it ends
// that much before the present. Small blocks (a sink at a call's latency sends a
// few milliseconds at a time) are gathered into fragments before they are handed on.
// Record streams get no overrun callback: a stream that loses data shows as a
// gap, filled and logged like any other.
//
// Thread contract: start(), setSuspended(), counters() and the destructor run on
// the owner's thread; everything else runs on the connection's mainloop thread.
class PulseCapture final : public Capture
{
public:
    PulseCapture(
        QByteArray server, CaptureSource source, const SampleSpec &spec, SoundServer::BlockHandler onBlock);
    ~PulseCapture() override;

    // Connects and waits until the stream runs; the server's status text on failure.
    // A system-output capture starts on `output` when given, else on the default
    // output it reads itself.
    [[nodiscard]] std::optional<QString> start(const OutputDevice *output = nullptr);

    void setSuspended(bool suspended) override;
    void catchUp() override;
    void setOrigin(std::chrono::steady_clock::time_point origin) override;
    [[nodiscard]] Counters counters() const override;

private:
    using Clock = std::chrono::steady_clock;

    [[nodiscard]] const QLoggingCategory &category() const;
    bool openStream(const QByteArray &device);
    void closeStream();
    [[nodiscard]] bool streamIsGood() const;
    void onStreamState();
    void onRead();
    void onContextState(pa_context_state_t state);
    void onServerChanged();
    void follow(const QByteArray &sink);
    void reconnectIn(std::chrono::milliseconds delay);
    void reconnect();
    void subscribe();
    void tick();
    // Delivers what the clock allows of a block that arrived `now`.
    void take(const void *data, qint64 frames, Clock::time_point now);
    // Silence up to `target` frames of the timeline, if that much is missing.
    void fillUpTo(qint64 target);
    void endGap();
    [[nodiscard]] qint64 expectedFrames(Clock::time_point now) const;
    [[nodiscard]] qint64 framesOf(std::chrono::milliseconds span) const;
    void deliver(const void *data, qint64 frames);
    void flush();

    PulseConnection m_connection;
    const CaptureSource m_source;
    const SampleSpec m_spec;
    const SoundServer::BlockHandler m_onBlock;

    // Mainloop thread (or the owner with the lock held).
    pa_stream *m_stream = nullptr;
    QByteArray m_sink;
    pa_time_event *m_retry = nullptr;
    bool m_running = false;
    bool m_stopping = false;
    bool m_suspended = false;
    bool m_outage = false;
    bool m_caughtUp = false;
    pa_time_event *m_ticker = nullptr;
    Clock::time_point m_clockStart;
    Clock::time_point m_suspendedAt;
    Clock::duration m_suspendedTotal {};
    // Frames of the timeline delivered so far, silence included.
    qint64 m_delivered = 0;
    bool m_sawFirstBlock = false;
    // The gap being filled: where it began on the timeline and how long it is so far.
    qint64 m_gapAt = -1;
    qint64 m_gapFrames = 0;
    std::vector<char> m_thinned; // a block with frames taken out, reused
    std::vector<char> m_gathered; // small blocks gathered into a fragment

    std::atomic<quint64> m_framesReceived { 0 };
    std::atomic<quint64> m_framesOfSilence { 0 };
    std::atomic<quint64> m_framesAbsorbed { 0 };
    std::atomic<quint64> m_framesBeforeFirstBlock { 0 };
};
