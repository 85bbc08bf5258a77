#include "audio/SystemRecorder.h"

#include "audio/GlobalTap.h"
#include "common/Logging.h"

SystemRecorder::SystemRecorder(QString filePath, SoundServer &server)
    : SourceRecorder(std::move(filePath), { lcSystemRecorder(), "SystemRecorder", "Recording", "tap", false })
    , m_server(server)
{ }

SourceRecorder::Opened SystemRecorder::open(AudioFileWriter &file, SoundServer::BlockHandler toFile)
{
    auto tap = std::make_unique<GlobalTap>(m_server);
    tap->activate();
    const std::optional<SampleSpec> format = tap->tapStreamDescription();
    if (!format)
        return SystemRecorderError { QStringLiteral("Tap stream description not available.") };
    if (!format->isValid() || format->sample != SampleSpec::Sample::float32)
        return SystemRecorderError { QStringLiteral("Failed to create AVAudioFormat.") };
    qCDebug(lcSystemRecorder).noquote() << "Using audio format:" << format->description();
    if (auto error = file.open(filePath(), *format))
        return SystemRecorderError { *error };
    if (auto error = tap->run(std::move(toFile)))
        return *error;
    return std::unique_ptr<Capture>(std::move(tap));
}
