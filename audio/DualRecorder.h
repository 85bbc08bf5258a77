#pragma once

#include "audio/CaptureError.h"

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

// The one object the recording session talks to for audio. For one recording it runs
// the system-audio recorder and the microphone recorder side by side, each writing its
// own file, and on stop() mixes the two into the file that is uploaded. A new one is
// made for every recording and never reused.
//
// Files, all inside the folder given to the constructor, share one STAMP (the wall
// clock in seconds as the shortest decimal that reads back the same):
// STAMP_system.wav, STAMP_microphone.wav and STAMP_mixed.m4a. The folder is the
// caller's: this class never creates or deletes it.
//
// Thread contract: every member on the main thread. stop() does its mixing on the
// mixer's own worker thread and never blocks the main thread; the alert sound plays on
// Qt's global thread pool.
class DualRecorder : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isRecording READ isRecording NOTIFY isRecordingChanged)
    Q_PROPERTY(bool isPaused READ isPaused NOTIFY isPausedChanged)
    Q_PROPERTY(QString logs READ logs NOTIFY logsChanged)

public:
    // `server` must outlive the recorder. Touches no file.
    DualRecorder(const QString &baseDir, SoundServer &server, std::shared_ptr<AlertSound> alertSound,
                 QObject *parent = nullptr);
    ~DualRecorder() override;

    [[nodiscard]] QString systemAudioPath() const { return m_systemAudioPath; }
    [[nodiscard]] QString microphonePath() const { return m_microphonePath; }
    [[nodiscard]] QString finalMixedPath() const { return m_finalMixedPath; }

    [[nodiscard]] bool isRecording() const { return m_isRecording; }
    [[nodiscard]] bool isPaused() const { return m_isPaused; }
    // The transcript of the last mixing run.
    [[nodiscard]] QString logs() const { return m_logs; }

    // Microphone first, then system audio, then the alert sound. A failing engine's
    // error is handed back unchanged; a failed system start deliberately leaves the
    // microphone running (cleaning up is the caller's business).
    [[nodiscard]] std::optional<CaptureError> start();
    // Only while recording.
    void pause();
    // Looks at isRecording only: on a stopped or never-started recorder it sets
    // isRecording although no engine runs. The session never does that.
    void resume();
    // Only when not recording (paused): both files deleted. Does nothing while recording.
    void cancel();
    // Only while recording (a paused recording must be resumed first): stops both
    // engines and mixes. Never throws; the mixed file exists afterwards if and only
    // if mixing succeeded.
    [[nodiscard]] QCoro::Task<> stop();

Q_SIGNALS:
    void isRecordingChanged();
    void isPausedChanged();
    void logsChanged();

private:
    DualRecorder(const QDir &dir, const QString &stamp, SoundServer &server, std::shared_ptr<AlertSound> alertSound,
                 QObject *parent);
    void setRecording(bool value);
    void setPaused(bool value);
    void appendLog(const QString &line);
    [[nodiscard]] QCoro::Task<> mixAudioFiles();

    const QString m_systemAudioPath;
    const QString m_microphonePath;
    const QString m_finalMixedPath;
    bool m_isRecording = false;
    bool m_isPaused = false;
    QString m_logs;
    SoundServer &m_server;
    const std::shared_ptr<AlertSound> m_alertSound;
    std::unique_ptr<SystemRecorder> m_systemRecorder;
    std::unique_ptr<MicRecorder> m_micRecorder;
};
