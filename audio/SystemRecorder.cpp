#include "audio/SystemRecorder.h"

#include "audio/SoundServer.h"
#include "common/Logging.h"
#include "common/Observable.h"

#include <QFile>

SystemRecorder::SystemRecorder(QString filePath, SoundServer &server, QObject *parent)
    : QObject(parent)
    , m_filePath(std::move(filePath))
    , m_server(server)
    , m_currentFile("SystemRecorder", lcSystemRecorder())
{
}

SystemRecorder::~SystemRecorder()
{
    // The tap goes first so that no block arrives for a writer being destroyed.
    m_tap.reset();
}

void SystemRecorder::setPaused(bool paused)
{
    m_currentFile.setDropping(paused);
    setIfChanged(m_isPaused, paused, this, &SystemRecorder::isPausedChanged);
}

std::optional<CaptureError> SystemRecorder::start()
{
    qCDebug(lcSystemRecorder) << "start()";
    m_tap = std::make_unique<GlobalTap>(m_server, false);
    m_tap->activate();
    const std::optional<SampleSpec> format = m_tap->tapStreamDescription();
    if (!format)
        return SystemRecorderError { QStringLiteral("Tap stream description not available.") };
    if (!format->isValid() || format->sample != SampleSpec::Sample::float32)
        return SystemRecorderError { QStringLiteral("Failed to create AVAudioFormat.") };
    qCDebug(lcSystemRecorder).noquote() << "Using audio format:" << format->description();

    if (auto error = m_currentFile.open(m_filePath, *format))
        return SystemRecorderError { *error };

    // Runs on the server's thread: hand a copy to the writer and return.
    AudioFileWriter *file = &m_currentFile;
    auto ioBlock = [file](const void *data, qint64 frames) { file->push(static_cast<const float *>(data), frames); };
    auto invalidated = [](GlobalTap &) { qCDebug(lcSystemRecorder) << "Tap invalidated"; };
    if (auto error = m_tap->run(std::move(ioBlock), std::move(invalidated))) {
        m_currentFile.close();
        return *error;
    }
    setPaused(false);
    return std::nullopt;
}

bool SystemRecorder::requireStarted(const char *operation) const
{
    // The dual recorder only makes a recorder right before starting it, so this
    // is a programming error; in a release build it is logged and ignored.
    Q_ASSERT_X(m_tap, operation, "called before start()");
    if (!m_tap)
        qCCritical(lcSystemRecorder) << operation << "called before start()";
    return m_tap != nullptr;
}

void SystemRecorder::pause()
{
    qCDebug(lcSystemRecorder) << "pause()";
    if (!requireStarted("pause()"))
        return;
    if (!m_tap->isActivated()) {
        qCCritical(lcSystemRecorder) << "pause()" << "called while tap not active";
    } else if (m_isPaused) {
        qCCritical(lcSystemRecorder) << "pause()" << "called while already paused";
    } else {
        setPaused(true);
        qCInfo(lcSystemRecorder) << "Recording paused";
    }
}

void SystemRecorder::resume()
{
    qCDebug(lcSystemRecorder) << "resume()";
    if (!requireStarted("resume()"))
        return;
    if (!m_tap->isActivated()) {
        qCCritical(lcSystemRecorder) << "resume()" << "called while tap not active";
    } else if (!m_isPaused) {
        qCCritical(lcSystemRecorder) << "resume()" << "called while not paused";
    } else {
        setPaused(false);
        qCInfo(lcSystemRecorder) << "Recording resumed";
    }
}

void SystemRecorder::stop()
{
    qCDebug(lcSystemRecorder) << "stop()";
    if (!requireStarted("stop()") || !m_tap->isActivated())
        return;
    // The file is closed before the tap stops: a block still arriving finds the
    // writer closed and is ignored, exactly as one arriving after the tap stopped.
    // A quiet output sends nothing: the file still runs up to the present.
    m_tap->catchUp();
    m_finalCounters = m_tap->counters();
    m_currentFile.close();
    setPaused(false);
    m_tap->invalidate();
}

void SystemRecorder::cancel()
{
    qCDebug(lcSystemRecorder) << "cancel()";
    if (!requireStarted("cancel()"))
        return;
    if (m_tap->isActivated())
        stop();
    QFile file(m_filePath);
    if (!file.exists()) {
        qCDebug(lcSystemRecorder).noquote() << "No file to delete at:" << m_filePath;
    } else if (file.remove()) {
        qCInfo(lcSystemRecorder).noquote() << "Deleted recording file:" << m_filePath;
    } else {
        qCCritical(lcSystemRecorder).noquote() << "Failed to delete recording file:" << file.errorString();
    }
}

SystemRecorder::Statistics SystemRecorder::statistics() const
{
    const Capture::Counters counters = m_tap && m_tap->isActivated() ? m_tap->counters() : m_finalCounters;
    return { counters.framesReceived + counters.framesOfSilence, counters.framesOfSilence,
             m_currentFile.framesWritten(), m_currentFile.framesDropped() };
}
