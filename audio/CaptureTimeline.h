#pragma once

#include "audio/SoundServer.h"

#include <QLoggingCategory>

#include <atomic>
#include <chrono>
#include <functional>
#include <vector>

// Keeps one capture's track on the monotonic clock, whatever its source sends, so that
// the two files of a recording stay side by side for hours. A backend hands it the
// blocks as they come, with when each was heard, and calls tick() now and then; the
// timeline answers through its sink with what to write: frames, or silence (null).
// The track counts from start() (or an earlier origin), suspended time left out:
// - the wait from the start to the first block is silence, so the track begins when
//   the recording was asked for;
// - when the source falls more than gapAfter behind the clock (a sink that plays
//   nothing and sends nothing, a suspended device, a switch, a lost server), tick()
//   writes the gap as silence up to a block short of the present, which is what is
//   normally on its way; one log line per gap says where and how long;
// - a block is placed where it was heard: one that ends a gap, or arrives more than
//   gapAfter after the end of what was written, gets silence in front of it;
// - when more arrives than the clock allows (a device clock running fast, or the late
//   burst of a stream whose gap was already filled), the excess is dropped: beyond
//   gapAfter at once from the front of the block (that time is already written),
//   below it a frame in every absorbStride, which nobody hears;
// - blocks arriving while suspended or after finish() are dropped;
// - finish() writes silence up to the present and nothing after it, so a capture being
//   stopped ends at the present, not when the last sound was heard nor a block later.
//
// Pausing: the two sources pause differently, on purpose. The microphone suspends its
// capture (MicRecorder: the stream is corked and suspend() called), so the paused span
// is left out here and nothing is taken from the microphone while paused: the server
// may release the device, as a user who paused a call recording expects. System audio
// never suspends (GlobalTap): a monitor carries only what the user hears anyway, so
// there is nothing to release, and its stream and timeline run uninterrupted from start
// to stop while the writer drops what arrives during the pause (SystemRecorder). Its
// timeline therefore counts paused time, which shows in the positions of its gap log
// lines. Either way a file holds the unpaused spans back to back, cut to within a few
// blocks of the pause.
//
// Small blocks are not gathered here: how many wake-ups a block size costs is the
// backend's transport, and the steps map one to one on the blocks as they were heard.
//
// Thread contract: not synchronised; the backend calls every member from one thread at
// a time (PulseCapture: the mainloop thread, or the owner with the mainloop's lock
// held), and the sink runs inside those calls. counters() may be read from any thread.
// The present is always passed in, never read, so a test moves time by hand.
class CaptureTimeline
{
public:
    using Clock = std::chrono::steady_clock;
    // One step of the track: `frames` frames at `data`, or `frames` of silence when null.
    using Sink = std::function<void(const void *data, qint64 frames)>;

    // A working stream with blockDuration fragments runs between one and three blocks
    // behind the clock (measured on the fixture and on PipeWire); gapAfter is well above
    // that, so a working stream is never filled, and well below what a listener takes
    // for a shift between tracks.
    static constexpr std::chrono::milliseconds blockDuration { 25 };
    static constexpr std::chrono::milliseconds gapAfter { 100 };
    // How far ahead of the clock a source may run before frames are taken out, and how
    // thinly: one frame in absorbStride is 0.5 % of the time, about 5 ms a second, far
    // more than any device clock drifts, and a one-sample step is inaudible.
    static constexpr std::chrono::milliseconds aheadAllowed { 20 };
    static constexpr qint64 absorbStride = 200;

    // `category` is the capture's own, for the gap and first-audio lines.
    CaptureTimeline(int rate, int bytesPerFrame, const QLoggingCategory &category, Sink sink);

    void start(Clock::time_point now);
    // Counts the track from `origin` instead, if earlier and no block is placed yet.
    void setOrigin(Clock::time_point origin);
    void suspend(Clock::time_point now);
    void resume(Clock::time_point now);
    [[nodiscard]] bool isSuspended() const { return m_suspended; }

    // A block of `frames` (null: a hole in the stream) whose last frame was heard at
    // `heardAt`: at the present at the latest, earlier when more is queued behind it.
    void place(const void *data, qint64 frames, Clock::time_point heardAt);
    // Fills a gap that has grown past gapAfter; the backend calls it every few tens of
    // milliseconds.
    void tick(Clock::time_point now);
    void finish(Clock::time_point now);

    [[nodiscard]] Capture::Counters counters() const;

private:
    [[nodiscard]] qint64 expectedFrames(Clock::time_point now) const;
    [[nodiscard]] qint64 framesOf(std::chrono::milliseconds span) const;
    // Silence up to `target` frames of the track, if that much is missing.
    void fillUpTo(qint64 target);
    void endGap();
    void write(const void *data, qint64 frames);
    void thin(const void *data, qint64 frames, qint64 skip);

    const int m_rate;
    const int m_bytesPerFrame;
    const QLoggingCategory &m_category;
    const Sink m_sink;

    Clock::time_point m_start;
    Clock::time_point m_suspendedAt;
    Clock::duration m_suspendedTotal {};
    bool m_suspended = false;
    bool m_finished = false;
    bool m_sawFirstBlock = false;
    // Frames of the track written so far, silence included.
    qint64 m_written = 0;
    // The gap being filled: where it began on the track and how long it is so far.
    qint64 m_gapAt = -1;
    qint64 m_gapFrames = 0;
    std::vector<char> m_thinned; // a block with frames taken out, reused
    // Frames that came ahead of the clock since the last one taken out, across blocks:
    // small blocks would otherwise lose a frame each, far more than one in absorbStride.
    qint64 m_aheadSinceThinned = 0;

    std::atomic<quint64> m_framesReceived { 0 };
    std::atomic<quint64> m_framesOfSilence { 0 };
    std::atomic<quint64> m_framesAbsorbed { 0 };
    std::atomic<quint64> m_framesBeforeFirstBlock { 0 };
};
