#include "audio/MicRecorder.h"

#include "common/Logging.h"
#include "common/Observable.h"

#include <QFile>

MicRecorder::MicRecorder(QString filePath, SoundServer &server, QObject *parent)
    : QObject(parent)
    , m_filePath(std::move(filePath))
    , m_server(server)
{
}

MicRecorder::~MicRecorder()
{
    release();
}

void MicRecorder::setRecording(bool recording)
{
    setIfChanged(m_isRecording, recording, this, &MicRecorder::isRecordingChanged);
}

std::optional<CaptureError> MicRecorder::start()
{
    qCDebug(lcMicRecorder) << "start()";
    if (m_isRecording) {
        qCCritical(lcMicRecorder) << "start()" << "while already recording";
        return std::nullopt;
    }
    release();
    auto file = std::make_unique<AudioFileWriter>("MicRecorder", lcMicRecorder());
    if (auto error = file->open(m_filePath, { SampleSpec::Sample::int16, sampleRate, channels }))
        return MicRecorderError { *error };

    // Samples arrive as float and are stored as 16-bit PCM by the writer.
    AudioFileWriter *writer = file.get();
    auto capture = m_server.startCapture(
        CaptureSource::defaultInput, { SampleSpec::Sample::float32, sampleRate, channels },
        [writer](const void *data, qint64 frames) { writer->push(static_cast<const float *>(data), frames); });
    if (auto *reason = std::get_if<QString>(&capture)) {
        qCWarning(lcMicRecorder).noquote() << "The microphone could not be captured:" << *reason;
        // Nothing was recorded: leave no empty file behind.
        file->close();
        QFile::remove(m_filePath);
        return MicRecorderError { QStringLiteral("Failed to start microphone recording") };
    }
    m_file = std::move(file);
    m_audioRecorder = std::move(std::get<std::unique_ptr<Capture>>(capture));
    setRecording(true);
    qCDebug(lcMicRecorder) << "Microphone recording started";
    return std::nullopt;
}

void MicRecorder::pause()
{
    qCDebug(lcMicRecorder) << "pause()";
    if (!m_isRecording)
        return;
    if (m_audioRecorder)
        m_audioRecorder->setSuspended(true);
    setRecording(false);
    qCDebug(lcMicRecorder) << "Microphone recording paused";
}

void MicRecorder::resume()
{
    qCDebug(lcMicRecorder) << "resume()";
    if (m_isRecording)
        return;
    if (m_audioRecorder)
        m_audioRecorder->setSuspended(false);
    setRecording(true);
    qCDebug(lcMicRecorder) << "Microphone recording resumed";
}

void MicRecorder::stop()
{
    qCDebug(lcMicRecorder) << "stop()";
    if (!m_isRecording)
        return;
    if (m_audioRecorder)
        m_audioRecorder->catchUp();
    release();
    setRecording(false);
    qCDebug(lcMicRecorder) << "Microphone recording stopped";
}

void MicRecorder::cancel()
{
    qCDebug(lcMicRecorder) << "cancel()";
    if (m_audioRecorder || m_file) {
        release();
        QFile::remove(m_filePath);
    }
    setRecording(false);
    qCDebug(lcMicRecorder) << "Microphone recording cancelled";
}

void MicRecorder::release()
{
    if (m_audioRecorder) {
        const Capture::Counters counters = m_audioRecorder->counters();
        m_final.framesDelivered = counters.framesReceived + counters.framesOfSilence;
    }
    // Capture first, so that nothing pushes into a closed writer's queue.
    m_audioRecorder.reset();
    if (m_file) {
        m_file->close();
        m_final.framesWritten = m_file->framesWritten();
    }
    m_file.reset();
}

MicRecorder::Statistics MicRecorder::statistics() const
{
    if (!m_audioRecorder || !m_file)
        return m_final;
    const Capture::Counters counters = m_audioRecorder->counters();
    return { counters.framesReceived + counters.framesOfSilence, m_file->framesWritten() };
}
