#pragma once

#include "audio/SoundServer.h"
#include "audio/pulse/PulseConnection.h"

#include <atomic>
#include <chrono>
#include <optional>

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
// left to the server to move. After any interruption, including the server going
// away and coming back, the gap is filled with silence measured on the monotonic
// clock, so that the two files of a recording stay aligned.
//
// Record streams get no overrun callback, so loss is detected by comparing the
// frames received with the monotonic clock; it is logged. While the stream is
// interrupted (a sink switch, a lost server) a ticker writes silence as time
// passes, so the timeline stays continuous and a pause still drops the silence
// that falls into it. Quiet spells of a working stream are left alone: a sink
// that plays nothing may send nothing for a while and then deliver it late, and
// filling those spells would stretch the timeline.
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
    void account(qint64 frames);
    void tick();
    void fillSilence(std::chrono::milliseconds quietFor);
    [[nodiscard]] qint64 expectedFrames(Clock::time_point now) const;
    void deliver(const void *data, qint64 frames);

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
    bool m_flowing = false;
    bool m_interrupted = false;
    pa_time_event *m_ticker = nullptr;
    Clock::time_point m_clockStart;
    Clock::time_point m_lastData;
    Clock::time_point m_suspendedAt;
    Clock::duration m_suspendedTotal {};
    qint64 m_delivered = 0;
    qint64 m_baseline = 0;

    std::atomic<quint64> m_framesReceived { 0 };
    std::atomic<quint64> m_framesOfSilence { 0 };
};
