#pragma once

#include "audio/AudioFileWriter.h"
#include "audio/CaptureError.h"
#include "audio/GlobalTap.h"

#include <QObject>
#include <QString>

#include <memory>
#include <optional>

class SoundServer;

// Records what the computer plays into a 32-bit float WAV in the tap's format.
// Blocks are copied off the sound server's thread into the queue of one writer
// thread (named "SystemRecorder"); pausing makes the writer drop blocks, so the
// file holds only the unpaused spans back to back, with no silence for the pauses.
//
// Thread contract: every member on the main thread. Used for one recording only.
class SystemRecorder : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isPaused READ isPaused NOTIFY isPausedChanged)

public:
    struct Statistics
    {
        quint64 framesDelivered = 0; // by the server, silence for interruptions included
        quint64 framesOfSilence = 0; // of those, silence written for interruptions
        quint64 framesWritten = 0;
        quint64 framesDropped = 0; // while paused, or after a write error
    };

    // `server` must outlive the recorder; nothing is captured before start().
    SystemRecorder(QString filePath, SoundServer &server, QObject *parent = nullptr);
    ~SystemRecorder() override;

    [[nodiscard]] QString filePath() const { return m_filePath; }
    [[nodiscard]] bool isPaused() const { return m_isPaused; }

    // Makes the tap, opens the file (it exists from then on) and starts capturing.
    // Fails with a SystemRecorderError or the tap's GlobalTapError.
    [[nodiscard]] std::optional<CaptureError> start();
    void pause();
    void resume();
    // Closes the file and tears the tap down.
    void stop();
    // As stop(), then deletes the file.
    void cancel();

    // The counts so far; after stop() the final ones.
    [[nodiscard]] Statistics statistics() const;

Q_SIGNALS:
    void isPausedChanged();

private:
    void setPaused(bool paused);
    [[nodiscard]] bool requireStarted(const char *operation) const;

    const QString m_filePath;
    SoundServer &m_server;
    bool m_isPaused = false;
    // Declared before the tap so that it outlives it: the tap's thread pushes into it.
    AudioFileWriter m_currentFile;
    std::unique_ptr<GlobalTap> m_tap;
    Capture::Counters m_finalCounters;
};
