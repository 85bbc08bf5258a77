#pragma once

#include "audio/RecordingCapture.h"
#include "audio/RecordingFiles.h"

#include <QString>

#include <qcoro/qcorotask.h>

#include <optional>

// A recording an earlier run left in the recordings folder, as the flow drives it to
// send it: the files of one STAMP (RecordingFiles). It records nothing; stop() mixes the
// two captures when they are still there (a crash, a quit or a failed mix left them),
// any mixed file beside them being unfinished; cancel() deletes its audio files (the
// sidecar is its owner's).
//
// Thread contract: main thread; stop() mixes on the mixer's worker thread, and the
// object must live until that task is done.
class KeptRecording final : public RecordingCapture
{
public:
    // `removeSpeakerEcho`: what the mix of stop() does (AudioMixer::Files).
    explicit KeptRecording(RecordingFiles files, bool removeSpeakerEcho = false);

    [[nodiscard]] bool hasCaptures() const;
    // The recorded time the two captures hold: the longer of the two, from their frame
    // counts; 0 when neither can be read.
    [[nodiscard]] double capturedSeconds() const;

    [[nodiscard]] std::optional<QString> start() override;
    void pause() override { }
    void resume() override { }
    void flush() override { }
    void cancel() override;
    [[nodiscard]] QCoro::Task<> stop() override;
    void close() override { }
    [[nodiscard]] QString finalMixedPath() const override { return m_files.mixed(); }
    [[nodiscard]] std::optional<WriteFailure> writeFailure() const override { return std::nullopt; }
    [[nodiscard]] std::optional<QString> mixFailure() const override { return m_mixFailure; }

private:
    const RecordingFiles m_files;
    const bool m_removeSpeakerEcho;
    std::optional<QString> m_mixFailure;
};
