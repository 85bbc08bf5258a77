#pragma once

#include "audio/WriteFailure.h"

#include <QString>

#include <qcoro/qcorotask.h>

#include <functional>
#include <memory>
#include <optional>

// The capture of one recording as the recorder flow drives it: the application's is
// the DualRecorder (audio/), the flow's unit tests use a stand-in. One object per
// recording, never reused.
//
// Thread contract: main thread only. The flow holds it through a shared_ptr and so
// does a running save or retry, so it outlives a discard or the flow itself for as
// long as a send still needs its file.
class RecordingCapture
{
public:
    virtual ~RecordingCapture() = default;
    RecordingCapture() = default;
    RecordingCapture(const RecordingCapture &) = delete;
    RecordingCapture &operator=(const RecordingCapture &) = delete;

    // Starts both sources; on failure the description of what failed.
    [[nodiscard]] virtual std::optional<QString> start() = 0;
    virtual void pause() = 0;
    virtual void resume() = 0;
    // Has what the files were given reach the disk (before the computer sleeps);
    // waits a bounded time.
    virtual void flush() = 0;
    // Deletes every file of the recording, but only when the capture is not running
    // and not mixing (the dual recorder's rule: a discard closes a running one first).
    virtual void cancel() = 0;
    // Ends the capture, running, paused or closed (the paused span stays out), and
    // leaves the mixed file at finalMixedPath(), or nothing there when mixing failed
    // (mixFailure() then says why, and the next stop() mixes again). Never throws.
    [[nodiscard]] virtual QCoro::Task<> stop() = 0;
    // Running or paused: ends the capture and closes its files with what they hold,
    // without mixing; a later stop() mixes them.
    virtual void close() = 0;
    [[nodiscard]] virtual QString finalMixedPath() const = 0;
    // Why the capture's files stopped taking audio, if they did; polled while it runs.
    [[nodiscard]] virtual std::optional<WriteFailure> writeFailure() const = 0;
    // The mixer's error when the last stop() could not mix.
    [[nodiscard]] virtual std::optional<QString> mixFailure() const = 0;

    // --- live levels ---
    // The loudest sample each source wrote since the previous call, 0..1 of full
    // scale; 0 is digital silence or nothing at all. Reading resets both, so there
    // is one reader: the flow. A capture that measures nothing reads 0.
    struct Levels
    {
        float systemAudio = 0;
        float microphone = 0;
        bool microphoneMissing = false; // no input left to record: the microphone is silence
    };
    [[nodiscard]] virtual Levels takeLevels() { return {}; }
};

// Makes the capture of a new recording whose files go into `folder`.
using CaptureFactory = std::function<std::shared_ptr<RecordingCapture>(const QString &folder)>;
