#pragma once

#include "audio/AudioFileWriter.h"
#include "audio/CaptureError.h"
#include "audio/PeakMeter.h"
#include "audio/SoundServer.h"

#include <QLoggingCategory>
#include <QString>

#include <chrono>
#include <memory>
#include <optional>
#include <variant>

// Records one source into one WAV file, with pause and resume: what SystemRecorder
// and MicRecorder have in common. A subclass only says how its file is opened and its
// capture started; the state, the guards, the writer thread and the file's end are here.
//
//   idle → start() → recording ⇄ pause()/resume() → paused … → stop() → closed (file kept)
//                                                          or cancel() → closed (file deleted)
//
// stop() closes the file from the paused state too: the paused span is not in it, and
// nothing has to be resumed first. Misordered calls are logged and ignored. A start
// that fails leaves no file behind.
//
// Thread contract: every member on the owner's (main) thread. Blocks arrive on the
// sound server's thread and are copied into the writer's queue; the writer thread
// (named after the recorder) writes them. Used for one recording only.
class SourceRecorder
{
public:
    struct Statistics
    {
        quint64 framesDelivered = 0; // by the capture, silence for gaps included
        quint64 framesOfSilence = 0; // of those, silence written for gaps
        quint64 framesWritten = 0;
        quint64 framesDropped = 0; // while paused, or after a write error
        quint64 framesAbsorbed = 0; // received but ahead of the clock, never delivered
        quint64 framesBeforeFirstBlock = 0; // the wait from start() to the first block
    };

    virtual ~SourceRecorder();
    SourceRecorder(const SourceRecorder &) = delete;
    SourceRecorder &operator=(const SourceRecorder &) = delete;

    [[nodiscard]] QString filePath() const { return m_filePath; }
    [[nodiscard]] bool isRecording() const { return m_state == State::recording; }
    [[nodiscard]] bool isPaused() const { return m_state == State::paused; }

    // Opens the file (it exists from then on) and starts capturing. The file's
    // timeline begins at `origin` when given (the press of Record, shared by both
    // sources of a recording), else at this call.
    [[nodiscard]] std::optional<CaptureError> start(
        std::optional<std::chrono::steady_clock::time_point> origin = std::nullopt);
    void pause();
    void resume();
    // Closes the file, from recording or paused, and ends the capture.
    void stop();
    // As stop(), then deletes the file this recorder made.
    void cancel();

    // Why this recorder's file stopped taking audio, if it did: the writer's failure,
    // or the file gone from the disk while open. Polled on the owner's thread.
    [[nodiscard]] std::optional<WriteFailure> writeFailure() const;

    // The counts so far; after stop() the final ones.
    [[nodiscard]] Statistics statistics() const;

    // The loudest sample written since the previous call, 0..1 of full scale; 0 when
    // only silence (or nothing) came. Reading resets it: one reader only.
    [[nodiscard]] float takeLevel() { return m_level.read(); }
    // Has what the file was given reach the disk, waiting at most half a second (logind
    // gives a delay five seconds in all); a file that did not is logged.
    void flush();
    // While running: the capture has no device to record (Capture::deviceMissing).
    [[nodiscard]] bool deviceMissing() const { return m_capture && m_capture->deviceMissing(); }

protected:
    struct Profile
    {
        const QLoggingCategory &category;
        const char *name; // the writer thread's name
        const char *subject; // "<subject> paused", "<subject> resumed", …
        const char *device; // what a misordered call names: "pause() called while <device> not active"
        // Paused time kept out at the server (the stream is suspended) rather than by the
        // writer dropping what still arrives.
        bool suspendWhilePaused;
    };
    using Opened = std::variant<std::unique_ptr<Capture>, CaptureError>;

    SourceRecorder(QString filePath, const Profile &profile);

    // Opens `file` at filePath() in the source's format and starts the capture that
    // hands its blocks to `toFile`. Errors come in the recorder's own type.
    [[nodiscard]] virtual Opened open(AudioFileWriter &file, SoundServer::BlockHandler toFile) = 0;

    [[nodiscard]] const QLoggingCategory &category() const { return m_profile.category; }

private:
    enum class State { idle, recording, paused, closed };

    [[nodiscard]] bool isOpen() const { return m_state == State::recording || m_state == State::paused; }
    void setPaused(bool paused);

    const QString m_filePath;
    const Profile m_profile;
    State m_state = State::idle;
    // Declared before the capture so that they outlive it: the capture's thread pushes into them.
    AudioFileWriter m_file;
    PeakMeter m_level;
    std::unique_ptr<Capture> m_capture;
    Capture::Counters m_finalCounters;
};
