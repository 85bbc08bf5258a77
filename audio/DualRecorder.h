#pragma once

#include "recording/RecordingCapture.h"

#include <QObject>
#include <QString>

#include <qcoro/qcorotask.h>

#include <memory>
#include <optional>

class AlertSound;
class QDir;
class MicRecorder;
class SoundServer;
class SystemRecorder;

// The one object the recording session talks to for audio, through RecordingCapture.
// For one recording it runs the system-audio recorder and the microphone recorder side
// by side, each writing its own file, and on stop() mixes the two into the file that is
// uploaded. A new one is made for every recording and never reused.
//
// Files, all inside the folder given to the constructor, share one STAMP (the wall
// clock in seconds as the shortest decimal that reads back the same):
// STAMP_system.wav, STAMP_microphone.wav and STAMP_mixed.m4a. The folder is the
// caller's: this class never creates or deletes it.
//
// Thread contract: every member on the main thread. stop() does its mixing on the
// mixer's own worker thread and never blocks the main thread; the alert sound plays on
// Qt's global thread pool.
class DualRecorder final : public QObject, public RecordingCapture
{
    Q_OBJECT

public:
    // `server` must outlive the recorder. Touches no file.
    DualRecorder(const QString &baseDir, SoundServer &server, std::shared_ptr<AlertSound> alertSound,
        QObject *parent = nullptr);
    ~DualRecorder() override;

    // The application's factory: a DualRecorder on `server` per recording, deleted
    // through the event loop and keeping the server alive until it is gone.
    [[nodiscard]] static CaptureFactory factory(
        std::shared_ptr<SoundServer> server, std::shared_ptr<AlertSound> alertSound);

    [[nodiscard]] QString systemAudioPath() const { return m_systemAudioPath; }
    [[nodiscard]] QString microphonePath() const { return m_microphonePath; }
    [[nodiscard]] QString finalMixedPath() const override { return m_finalMixedPath; }

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
    // Looks at "recording" only: on a stopped or never-started recorder it claims to
    // record although no engine runs. The session never does that.
    void resume() override;
    // Only when paused or not started: both files deleted. Does nothing while recording,
    // and nothing while stop() runs (the mixer is reading the files).
    void cancel() override;
    // From recording or paused: stops both engines (a paused one keeps its pause out of
    // the files) and mixes. Never throws; the mixed file exists afterwards if and only
    // if mixing succeeded, and then the two intermediate files are deleted.
    [[nodiscard]] QCoro::Task<> stop() override;

    // Each recorder's level since the previous call (0 for one not running).
    [[nodiscard]] Levels takeLevels() override;

private:
    enum class State { idle, recording, paused, stopping, ended };

    DualRecorder(const QDir &dir, const QString &stamp, SoundServer &server,
        std::shared_ptr<AlertSound> alertSound, QObject *parent);
    void appendLog(const QString &line);
    [[nodiscard]] QCoro::Task<> mixAudioFiles();

    const QString m_systemAudioPath;
    const QString m_microphonePath;
    const QString m_finalMixedPath;
    State m_state = State::idle;
    QString m_logs;
    SoundServer &m_server;
    const std::shared_ptr<AlertSound> m_alertSound;
    std::unique_ptr<SystemRecorder> m_systemRecorder;
    std::unique_ptr<MicRecorder> m_micRecorder;
};
