#include "audio/SourceRecorder.h"

#include <QFile>
#include <QFileInfo>

SourceRecorder::SourceRecorder(QString filePath, const Profile &profile)
    : m_filePath(std::move(filePath))
    , m_profile(profile)
    , m_file(profile.name, profile.category)
{ }

SourceRecorder::~SourceRecorder()
{
    // The capture goes first so that no block arrives for a writer being destroyed.
    m_capture.reset();
}

std::optional<CaptureError> SourceRecorder::start(std::optional<std::chrono::steady_clock::time_point> origin)
{
    qCDebug(m_profile.category) << "start()";
    if (m_state != State::idle) {
        qCCritical(m_profile.category) << "start()"
                                       << "while already recording";
        return std::nullopt;
    }
    // Runs on the server's thread: hand a copy to the writer and return. The level
    // comes from the very samples the file gets; the writer's format is set before
    // the capture starts, so its channel count is fixed by then.
    AudioFileWriter *file = &m_file;
    PeakMeter *level = &m_level;
    Opened opened = open(m_file, [file, level](const void *data, qint64 frames) {
        const auto *samples = static_cast<const float *>(data);
        level->take(samples, frames * file->channels());
        file->push(samples, frames);
    });
    if (auto *error = std::get_if<CaptureError>(&opened)) {
        // Nothing was recorded: leave no empty file behind.
        if (m_file.isOpen()) {
            m_file.close();
            QFile::remove(m_filePath);
        }
        return *error;
    }
    m_capture = std::move(std::get<std::unique_ptr<Capture>>(opened));
    if (origin)
        m_capture->setOrigin(*origin);
    m_state = State::recording;
    qCDebug(m_profile.category).noquote() << m_profile.subject << "started";
    return std::nullopt;
}

void SourceRecorder::setPaused(bool paused)
{
    if (m_profile.suspendWhilePaused)
        m_capture->setSuspended(paused);
    else
        m_file.setDropping(paused);
    m_state = paused ? State::paused : State::recording;
    qCInfo(m_profile.category).noquote() << m_profile.subject << (paused ? "paused" : "resumed");
}

void SourceRecorder::pause()
{
    qCDebug(m_profile.category) << "pause()";
    if (m_state == State::paused)
        qCCritical(m_profile.category) << "pause()"
                                       << "called while already paused";
    else if (m_state != State::recording)
        qCCritical(m_profile.category) << "pause()"
                                       << "called while" << m_profile.device << "not active";
    else
        setPaused(true);
}

void SourceRecorder::resume()
{
    qCDebug(m_profile.category) << "resume()";
    if (m_state == State::recording)
        qCCritical(m_profile.category) << "resume()"
                                       << "called while not paused";
    else if (m_state != State::paused)
        qCCritical(m_profile.category) << "resume()"
                                       << "called while" << m_profile.device << "not active";
    else
        setPaused(false);
}

void SourceRecorder::flush()
{
    if (m_file.isOpen() && !m_file.flush(std::chrono::milliseconds(500)))
        qCWarning(category()).noquote() << "Could not flush" << m_filePath << "to the disk";
}

void SourceRecorder::stop()
{
    qCDebug(m_profile.category) << "stop()";
    if (!isOpen())
        return;
    // A quiet source sends nothing: the file still runs up to the present (unless
    // paused, where the writer drops it or the suspended stream adds none).
    m_capture->catchUp();
    m_finalCounters = m_capture->counters();
    // The file is closed before the capture ends: a block still arriving finds the
    // writer closed and is ignored, exactly as one arriving after the capture ended.
    m_file.close();
    m_capture.reset();
    m_state = State::closed;
    qCDebug(m_profile.category).noquote() << m_profile.subject << "stopped";
}

void SourceRecorder::cancel()
{
    qCDebug(m_profile.category) << "cancel()";
    const bool made = m_state != State::idle;
    if (isOpen())
        stop();
    if (made) {
        QFile file(m_filePath);
        if (!file.exists())
            qCDebug(m_profile.category).noquote() << "No file to delete at:" << m_filePath;
        else if (file.remove())
            qCInfo(m_profile.category).noquote() << "Deleted recording file:" << m_filePath;
        else
            qCCritical(m_profile.category).noquote()
                << "Failed to delete recording file:" << file.errorString();
    }
    m_state = State::closed;
    qCDebug(m_profile.category).noquote() << m_profile.subject << "cancelled";
}

std::optional<WriteFailure> SourceRecorder::writeFailure() const
{
    if (auto failure = m_file.failure())
        return failure;
    // Writing to a removed file goes on without an error: it is the disk that says so.
    if (isOpen() && !QFileInfo::exists(m_filePath))
        return WriteFailure::fileRemoved;
    return std::nullopt;
}

SourceRecorder::Statistics SourceRecorder::statistics() const
{
    const Capture::Counters counters = m_capture ? m_capture->counters() : m_finalCounters;
    return { counters.framesReceived - counters.framesAbsorbed + counters.framesOfSilence,
        counters.framesOfSilence, m_file.framesWritten(), m_file.framesDropped(), counters.framesAbsorbed,
        counters.framesBeforeFirstBlock };
}
