#pragma once

#include "recording/RecordingCapture.h"

#include <QString>

#include <qcoro/qcorotask.h>

#include <optional>

// A recording an earlier run left in the recordings folder, as the flow drives it to
// send it: the files of one STAMP (STAMP_system.wav, STAMP_microphone.wav,
// STAMP_mixed.m4a, as DualRecorder names them). It records nothing; stop() mixes the
// two captures when they are still there (a crash, a quit or a failed mix left them),
// any mixed file beside them being unfinished; cancel() deletes every file of it.
//
// Thread contract: main thread; stop() mixes on the mixer's worker thread, and the
// object must live until that task is done.
class KeptRecording final : public RecordingCapture
{
public:
    KeptRecording(const QString &folder, const QString &stamp);

    [[nodiscard]] bool hasCaptures() const;
    // The recorded time the two captures hold: the longer of the two, from their frame
    // counts; 0 when neither can be read.
    [[nodiscard]] double capturedSeconds() const;

    [[nodiscard]] std::optional<QString> start() override;
    void pause() override { }
    void resume() override { }
    void cancel() override;
    [[nodiscard]] QCoro::Task<> stop() override;
    void close() override { }
    [[nodiscard]] QString finalMixedPath() const override { return m_mixed; }
    [[nodiscard]] std::optional<WriteFailure> writeFailure() const override { return std::nullopt; }
    [[nodiscard]] std::optional<QString> mixFailure() const override { return m_mixFailure; }

private:
    const QString m_system;
    const QString m_microphone;
    const QString m_mixed;
    std::optional<QString> m_mixFailure;
};
