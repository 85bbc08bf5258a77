#pragma once

#include "audio/AudioFileWriter.h"
#include "audio/CaptureError.h"
#include "audio/SoundServer.h"

#include <QObject>
#include <QString>

#include <memory>
#include <optional>

// Records the default input (the microphone) at 48000 Hz mono into a 16-bit PCM
// WAV. Pausing suspends the stream at the server, so paused time is simply absent
// from the file; resuming appends to the same file.
//
// Thread contract: every member on the main thread; blocks arrive on the sound
// server's thread and are written by the "MicRecorder" writer thread.
class MicRecorder : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isRecording READ isRecording NOTIFY isRecordingChanged)

public:
    static constexpr int sampleRate = 48000;
    static constexpr int channels = 1;

    struct Statistics
    {
        quint64 framesDelivered = 0;
        quint64 framesWritten = 0;
    };

    // `server` must outlive the recorder; nothing is opened before start().
    MicRecorder(QString filePath, SoundServer &server, QObject *parent = nullptr);
    ~MicRecorder() override;

    [[nodiscard]] QString filePath() const { return m_filePath; }
    [[nodiscard]] bool isRecording() const { return m_isRecording; }

    // A file that cannot be created fails with its own reason; a capture that
    // cannot begin (no server, no input, access refused) with
    // "Failed to start microphone recording".
    [[nodiscard]] std::optional<CaptureError> start();
    void pause();
    void resume();
    // Finishes and closes the file. Deliberately does nothing while paused.
    void stop();
    // Ends capture from any state and deletes the file.
    void cancel();

    [[nodiscard]] Statistics statistics() const;

Q_SIGNALS:
    void isRecordingChanged();

private:
    void setRecording(bool recording);
    void release();

    const QString m_filePath;
    SoundServer &m_server;
    bool m_isRecording = false;
    // The writer outlives the capture, whose thread pushes into it.
    std::unique_ptr<AudioFileWriter> m_file;
    std::unique_ptr<Capture> m_audioRecorder;
    Statistics m_final;
};
