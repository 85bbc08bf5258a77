#pragma once

#include "audio/CaptureTimeline.h"
#include "audio/SoundServer.h"
#include "audio/TrackSum.h"
#include "audio/pulse/PulseConnection.h"

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

// What one application plays, and nothing else: the capture behind SoundServer's
// startApplicationCapture (see there for the contract of the block handler).
//
// Every playback stream (sink-input) of the program named by its binary gets a
// restricted monitor stream of its own: a record stream on the monitor of the output
// the stream plays into, restricted to that one stream (pa_stream_set_monitor_stream
// before pa_stream_connect_record), so the server hands over that stream's audio before
// the output mixes it with anything else. Each is placed on the recording's clock by a
// CaptureTimeline of its own (all counting from the same instant), and TrackSum adds
// them up with a silent base track that keeps the sum on the clock while the program
// plays nothing.
//
// The streams are followed through the server's sink-input events: a new stream of the
// program is captured at its event; a stream that moves to another output is captured
// again on that output (PulseAudio ends a restricted capture when its stream moves;
// PipeWire may carry it along, in which case it is still opened again, on the new
// output); a stream that ends stops contributing; a program that quits and comes back
// is just new streams. Our own streams (the alert sound) are never captured, whatever
// the binary. A lost server is connected to again every second.
//
// Thread contract: as PulseCapture's: start(), the Capture members and the destructor on
// the owner's thread, with the mainloop's lock held; everything else on the connection's
// mainloop thread.
class PulseApplicationCapture final : public Capture
{
public:
    PulseApplicationCapture(
        QByteArray server, QString binary, const SampleSpec &spec, SoundServer::BlockHandler onBlock);
    ~PulseApplicationCapture() override;

    // Connects and starts following the program's streams; the server's status text on
    // failure. A program that plays nothing yet is no failure: the track is silence.
    [[nodiscard]] std::optional<QString> start();

    void setSuspended(bool suspended) override;
    void catchUp() override;
    void setOrigin(std::chrono::steady_clock::time_point origin) override;
    [[nodiscard]] Counters counters() const override;

private:
    using Clock = std::chrono::steady_clock;

    // One playback stream of the program and its restricted capture.
    struct Tap
    {
        PulseApplicationCapture *owner = nullptr;
        quint32 sinkInput = 0;
        quint32 sink = 0;
        pa_stream *stream = nullptr;
        int track = 0;
        std::unique_ptr<CaptureTimeline> timeline;
    };
    struct PlaybackStream
    {
        quint32 index;
        quint32 sink;
    };

    void onContextState(pa_context_state_t state);
    void read();
    void readDone();
    void follow(const std::vector<PlaybackStream> &streams);
    void open(Tap &tap);
    void close(Tap &tap);
    void onRead(Tap &tap);
    void tick();
    [[nodiscard]] std::unique_ptr<CaptureTimeline> timeline(int track);

    PulseConnection m_connection;
    const QString m_binary;
    const SampleSpec m_spec;
    const SoundServer::BlockHandler m_onBlock;

    // Mainloop thread (or the owner with the lock held).
    bool m_running = false;
    bool m_stopping = false;
    bool m_reading = false;
    bool m_stale = false;
    pa_time_event *m_ticker = nullptr;
    pa_time_event *m_retry = nullptr;
    TrackSum m_sum;
    CaptureTimeline m_base; // the silent base track
    std::map<quint32, Tap> m_taps; // by sink-input
    // What a timeline made later must count like the others: the start, the origin and
    // the suspensions so far.
    Clock::time_point m_start;
    std::optional<Clock::time_point> m_origin;
    std::vector<std::pair<Clock::time_point, Clock::time_point>> m_suspensions;
    Clock::time_point m_suspendedAt;
    pa_time_event *m_lookAgain = nullptr;
    quint64 m_endedReceived = 0; // by the streams that ended
    quint64 m_endedAbsorbed = 0;
    // As of the last tick, for counters() from the owner's thread.
    std::atomic<quint64> m_framesReceived { 0 };
    std::atomic<quint64> m_framesAbsorbed { 0 };
    // While reading: the program's streams, and each output's monitor.
    std::vector<PlaybackStream> m_found;
    std::map<quint32, QByteArray> m_monitors;
    int m_readsPending = 0;
};
