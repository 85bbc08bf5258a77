#include "audio/MicRecorder.h"

#include "common/Logging.h"

MicRecorder::MicRecorder(QString filePath, SoundServer &server)
    : SourceRecorder(
        std::move(filePath), { lcMicRecorder(), "MicRecorder", "Microphone recording", "microphone", true })
    , m_server(server)
{ }

SourceRecorder::Opened MicRecorder::open(AudioFileWriter &file, SoundServer::BlockHandler toFile)
{
    if (auto error = file.open(filePath(), { SampleSpec::Sample::int16, sampleRate, channels }))
        return MicRecorderError { *error };
    // Samples arrive as float and are stored as 16-bit PCM by the writer.
    auto capture = m_server.startCapture(CaptureSource::defaultInput,
        { SampleSpec::Sample::float32, sampleRate, channels }, std::move(toFile));
    if (auto *reason = std::get_if<QString>(&capture)) {
        qCWarning(lcMicRecorder).noquote() << "The microphone could not be captured:" << *reason;
        return MicRecorderError { QStringLiteral("Failed to start microphone recording") };
    }
    return std::move(std::get<std::unique_ptr<Capture>>(capture));
}
