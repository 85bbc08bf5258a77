#pragma once

#include "audio/CaptureTimeline.h"
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
// default's monitor. The microphone follows the default source the same way: left
// to the server, a stream whose input went away is moved to what the server falls
// back to, which is the monitor of an output when no input is left, and the system
// audio would land in the microphone's channel. A monitor is never followed as the
// microphone: until an input is the default again the capture is silent and
// deviceMissing() says so, and it looks for the default input every 400 ms.
//
// What is delivered follows the monotonic clock (see CaptureTimeline for the rule):
// this class only says when each block was heard, ticks the timeline and ends it at
// catchUp(). A block with more queued behind it was heard that much before the present.
// Small blocks (a sink at a call's latency sends a few milliseconds at a time) are
// gathered into fragments of CaptureTimeline::blockDuration before they are handed on.
// Record streams get no overrun callback: a stream that loses data shows as a
// gap, filled and logged like any other.
//
// Thread contract: start(), setSuspended(), setOrigin(), catchUp(), counters() and the
// destructor run on the owner's thread, all but counters() with the mainloop's lock
// held; everything else runs on the connection's mainloop thread.
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
    [[nodiscard]] bool deviceMissing() const override { return m_deviceMissing; }

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
    void follow(const QByteArray &device);
    void loseDevice();
    void lookForInput();
    // Afresh::yes looks for a missing input through a new connection (lookForInput).
    enum class Afresh { no, yes };
    void reconnectIn(std::chrono::milliseconds delay, Afresh afresh = Afresh::no);
    void reconnect();
    void subscribe();
    void tick();
    // The timeline's sink: gathers small blocks, hands silence on at once.
    void deliver(const void *data, qint64 frames);
    void flush();

    PulseConnection m_connection;
    const CaptureSource m_source;
    const SampleSpec m_spec;
    const SoundServer::BlockHandler m_onBlock;

    // Mainloop thread (or the owner with the lock held).
    pa_stream *m_stream = nullptr;
    QByteArray m_device; // the sink whose monitor, or the source, is recorded
    pa_time_event *m_retry = nullptr;
    bool m_running = false;
    bool m_stopping = false;
    bool m_outage = false;
    pa_time_event *m_ticker = nullptr;
    CaptureTimeline m_timeline;
    std::vector<char> m_gathered; // small blocks gathered into a fragment
    std::atomic<bool> m_deviceMissing { false }; // read from any thread
};
