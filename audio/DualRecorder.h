#pragma once

#include "audio/AudioMixer.h"
#include "audio/MicRecorder.h"
#include "audio/RecordingCapture.h"
#include "audio/RecordingFiles.h"

#include <QObject>
#include <QString>

#include <qcoro/qcorotask.h>

#include <functional>
#include <memory>
#include <optional>

class AlertSound;
class LiveMixer;
class SoundServer;
class SystemRecorder;

// The one object the recording session talks to for audio, through RecordingCapture.
// For one recording it runs the system-audio recorder and the microphone recorder side
// by side, each writing its own file, and on stop() mixes the two into the file that is
// uploaded. A new one is made for every recording and never reused.
//
// Its files (RecordingFiles: the two captures and the mix) are inside the folder
// given to the constructor, under a STAMP taken from the wall clock at construction.
// The folder is the caller's: this class never creates or deletes it.
//
// A recording that cannot go on (a writer failed, the application quits) is close()d:
// both files end with what they hold and stay; a later stop() mixes them. A mix that
// fails keeps the two files too, and the next stop() mixes again.
//
// Thread contract: every member on the main thread. The mix runs on the mixer's own
// worker thread, following the files while the recording runs (LiveMixer), and stop()
// never blocks the main thread; the alert sound plays on Qt's global thread pool.
class DualRecorder final : public QObject, public RecordingCapture
{
    Q_OBJECT

public:
    // What one second of recording takes on disk: 48 kHz stereo float system audio
    // and 48 kHz mono 16-bit microphone.
    static constexpr qint64 bytesPerSecond
        = 48000 * 2 * 4 + qint64 { MicRecorder::sampleRate } * MicRecorder::channels * 2;

    // `server` must outlive the recorder. Touches no file.
    DualRecorder(const QString &baseDir, SoundServer &server, std::shared_ptr<AlertSound> alertSound,
        QObject *parent = nullptr);
    ~DualRecorder() override;

    // The application's factory: a DualRecorder on `server` per recording, deleted
    // through the event loop and keeping the server alive until it is gone; each
    // removes the speakers' echo when `removeSpeakerEcho` says so as it is made.
    [[nodiscard]] static CaptureFactory factory(std::shared_ptr<SoundServer> server,
        std::shared_ptr<AlertSound> alertSound, std::function<bool()> removeSpeakerEcho = {});

    // Whether the mix takes the speakers' echo out of the microphone channel
    // (AudioMixer::Files::removeSpeakerEcho); off until set. Before start().
    void setRemoveSpeakerEcho(bool on) { m_removeSpeakerEcho = on; }

    [[nodiscard]] QString systemAudioPath() const { return m_files.systemAudio(); }
    [[nodiscard]] QString microphonePath() const { return m_files.microphone(); }
    [[nodiscard]] QString finalMixedPath() const override { return m_files.mixed(); }

    [[nodiscard]] bool isRecording() const { return m_state == State::recording; }
    [[nodiscard]] bool isPaused() const { return m_state == State::paused; }
    // The transcript of the last mixing run.
    [[nodiscard]] QString logs() const { return m_logs; }

    // Microphone first, then system audio, then the alert sound. On failure the text of
    // the failing engine's error; a failed system start deliberately leaves the
    // microphone running (a cancel() ends it, or dropping the recorder does).
    [[nodiscard]] std::optional<QString> start() override;
    // Only while recording.
    void pause() override;
    void flush() override;
    // Looks at "recording" only: on a stopped or never-started recorder it claims to
    // record although no engine runs. The session never does that.
    void resume() override;
    // Only when not running: every file of the recording deleted (the two captures and
    // the mix). Does nothing while recording, and nothing while stop() runs (the mixer
    // is reading the files).
    void cancel() override;
    // From recording, paused or closed: stops both engines (a paused one keeps its pause
    // out of the files) and mixes. Never throws; the mixed file exists afterwards if and
    // only if mixing succeeded, and then the two intermediate files are deleted. After a
    // failed mix the recorder is closed again, mixFailure() says why.
    [[nodiscard]] QCoro::Task<> stop() override;
    // From recording or paused: both engines stopped, both files closed, nothing mixed.
    void close() override;
    [[nodiscard]] std::optional<WriteFailure> writeFailure() const override;
    [[nodiscard]] std::optional<QString> mixFailure() const override { return m_mixFailure; }

    // Each recorder's level since the previous call (0 for one not running).
    [[nodiscard]] Levels takeLevels() override;

private:
    enum class State { idle, recording, paused, closed, stopping, ended };

    DualRecorder(
        RecordingFiles files, SoundServer &server, std::shared_ptr<AlertSound> alertSound, QObject *parent);
    void appendLog(const QString &line);
    [[nodiscard]] QCoro::Task<> mixAudioFiles();
    [[nodiscard]] AudioMixer::Files mixFiles() const;

    const RecordingFiles m_files;
    State m_state = State::idle;
    QString m_logs;
    std::optional<QString> m_mixFailure;
    SoundServer &m_server;
    const std::shared_ptr<AlertSound> m_alertSound;
    std::unique_ptr<SystemRecorder> m_systemRecorder;
    std::unique_ptr<MicRecorder> m_micRecorder;
    // Follows the two files from start() on, so that stop() only finishes the mix.
    std::unique_ptr<LiveMixer> m_liveMixer;
    bool m_removeSpeakerEcho = false;
};
