#pragma once

#include "recording/RecordingCapture.h"

#include <QPointer>

#include <memory>

class AlertSound;
class DualRecorder;
class SoundServer;

// The application's capture of one recording: a DualRecorder on the sound server.
//
// Two things differ from calling the dual recorder directly, both because the
// recorder screen saves from the paused state:
// - stop() resumes a paused recorder first, since the dual recorder only stops and
//   mixes a running one; the moment between the two adds a few milliseconds at most.
// - once stop() has left a non-empty mixed file, the two intermediate files are
//   deleted: a retry sends the mixed file, so they would only pile up in the folder.
// A cancel() while stop() runs is ignored, so a discard during "Finishing the
// recording…" does not delete the files the mixer is reading.
//
// Main thread only. Holds the sound server and the alert sound for as long as the
// recorder exists; the recorder itself is deleted through the event loop, never from
// inside one of its own callbacks.
class DualRecorderCapture final : public RecordingCapture
{
public:
    DualRecorderCapture(const QString &folder, std::shared_ptr<SoundServer> server,
                        std::shared_ptr<AlertSound> alertSound);
    ~DualRecorderCapture() override;

    [[nodiscard]] std::optional<QString> start() override;
    void pause() override;
    void resume() override;
    void cancel() override;
    [[nodiscard]] QCoro::Task<> stop() override;
    [[nodiscard]] QString finalMixedPath() const override;

    [[nodiscard]] QString systemAudioPath() const;
    [[nodiscard]] QString microphonePath() const;

private:
    const std::shared_ptr<SoundServer> m_server;
    QPointer<DualRecorder> m_recorder;
    bool m_stopping = false;
};
