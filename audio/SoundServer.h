#pragma once

#include "audio/CaptureError.h"
#include "audio/Permission.h"
#include "audio/StreamWatch.h"

#include <QString>
#include <QtGlobal>

#include <chrono>
#include <functional>
#include <memory>
#include <variant>

// How a capture delivers its samples: interleaved frames of one sample type.
struct SampleSpec
{
    enum class Sample { float32, int16 };

    Sample sample = Sample::float32;
    int rate = 0;
    int channels = 0;

    bool operator==(const SampleSpec &) const = default;
    [[nodiscard]] bool isValid() const { return rate > 0 && channels > 0 && channels <= 32; }
    [[nodiscard]] int bytesPerFrame() const { return channels * (sample == Sample::float32 ? 4 : 2); }
    // "48000 Hz, 2 ch, float32, interleaved" — for log lines.
    [[nodiscard]] QString description() const;
};

// The device everything is played into, as the sound server describes it.
struct OutputDevice
{
    QString name;
    SampleSpec spec;
    QString monitorSource;
};

enum class CaptureSource {
    systemOutput, // what the computer plays: the monitor of the default output
    defaultInput, // the microphone: the default input
};

// One running capture. Destroying it ends the capture; once the destructor has
// returned no block handler runs any more. Owned and called on one thread (the
// main thread in the app).
class Capture
{
public:
    struct Counters
    {
        quint64 framesReceived = 0; // frames the server delivered (its gaps included)
        quint64 framesOfSilence = 0; // frames of silence written where the server sent nothing
        quint64 framesAbsorbed = 0; // of those received, frames not passed on: ahead of the clock
        quint64 framesBeforeFirstBlock = 0; // the wait from the start to the first block
    };

    virtual ~Capture() = default;
    Capture() = default;
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    // Asks the server to stop (true) or restart (false) sending; time spent
    // suspended is simply absent from what is delivered (CaptureTimeline::suspend).
    virtual void setSuspended(bool suspended) = 0;
    // Delivers silence up to the present for what has not arrived, and nothing after
    // it: a capture being stopped ends at the present, not when the last sound was
    // heard nor a block later (CaptureTimeline::finish).
    virtual void catchUp() = 0;
    [[nodiscard]] virtual Counters counters() const = 0;
    // True while a defaultInput capture has no input to record (the last one went
    // away) and delivers silence until one is the default again. Any thread.
    [[nodiscard]] virtual bool deviceMissing() const { return false; }

    // Counts the timeline from `origin`, an instant before the start (the press of
    // Record), instead of from the start itself, so that captures started one after
    // the other begin together. Call it right after the start, before audio flows;
    // a capture that keeps no timeline ignores it.
    virtual void setOrigin(std::chrono::steady_clock::time_point origin) { Q_UNUSED(origin); }
};

// Access to the sound server: the few reads the recorders need, captures and the
// permission probe. The application picks one implementation where it is built and
// passes it to the recorders and permissions; tests do the same with their own.
class SoundServer
{
public:
    // Called on the server's own thread for every block: `data` holds `frames`
    // interleaved frames in the requested spec, or is null for `frames` frames of
    // silence (a gap in what the server sent, a reconnection). It must copy what it
    // needs and return at once: it must never wait on a disk or a lock held long.
    using BlockHandler = std::function<void(const void *data, qint64 frames)>;

    virtual ~SoundServer() = default;
    SoundServer() = default;
    SoundServer(const SoundServer &) = delete;
    SoundServer &operator=(const SoundServer &) = delete;

    // The default output device. Blocks for at most a short bounded time; an error
    // reads "Error reading data for <what>: <server status>".
    [[nodiscard]] virtual std::variant<OutputDevice, AudioObjectError> defaultOutput() = 0;

    // Starts capturing `source` in `spec` and returns once the server sends (or has
    // refused: then the server's status text). A capture follows the default output
    // (systemOutput) or input (defaultInput) when it changes or disappears, never
    // taking an output's monitor for the input, and reconnects after the server
    // restarts. What a capture delivers follows the monotonic clock from this call
    // on (suspended time left out): silence where the server sent nothing, excess
    // taken out, so that two captures started together stay side by side. A backend
    // does not write that rule itself: it hands every block, with when it was heard,
    // to a CaptureTimeline (audio/CaptureTimeline.h) started by this call, ticks it
    // every few tens of milliseconds, and passes setOrigin, setSuspended, catchUp and
    // counters through to it; what it delivers is what the timeline's sink is given.
    [[nodiscard]] virtual std::variant<std::unique_ptr<Capture>, QString> startCapture(
        CaptureSource source, const SampleSpec &spec, BlockHandler onBlock)
        = 0;

    // A systemOutput capture that starts on `output`, as defaultOutput() answered it,
    // so that a recording reads its output once; otherwise as startCapture(). `spec`
    // is what is delivered, whatever `output` runs at.
    [[nodiscard]] virtual std::variant<std::unique_ptr<Capture>, QString> startOutputCapture(
        const OutputDevice &output, const SampleSpec &spec, BlockHandler onBlock)
        = 0;

    // A capture of what one program plays and nothing else, as startCapture() delivers
    // it: the sum of the playback streams whose program's binary is `binary` (never this
    // process's own, never a program's capture streams), followed as they come, move and
    // go; silence while it plays nothing. Refused (the reason) where the server cannot
    // capture one program apart.
    [[nodiscard]] virtual std::variant<std::unique_ptr<Capture>, QString> startApplicationCapture(
        const QString &binary, const SampleSpec &spec, BlockHandler onBlock)
    {
        Q_UNUSED(binary);
        Q_UNUSED(spec);
        Q_UNUSED(onBlock);
        return QStringLiteral("This sound server cannot capture one application");
    }

    // Tries whether capturing `source` would work. Safe to call from any thread; may
    // take up to a couple of seconds when the server does not answer.
    [[nodiscard]] virtual Permission probe(CaptureSource source) = 0;

    // A watch on the server's client streams, for the caller's thread; null where
    // the server gives no such events.
    [[nodiscard]] virtual std::unique_ptr<StreamWatch> watchStreams() { return nullptr; }
};
