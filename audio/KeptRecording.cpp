#include "audio/KeptRecording.h"

#include "audio/AudioMixer.h"
#include "audio/DualRecorderError.h"
#include "common/Logging.h"

#include <QFile>
#include <QFileInfo>

#include <sndfile.h>

#include <algorithm>

namespace {

double secondsIn(const QString &path)
{
    SF_INFO info {};
    SNDFILE *file = sf_open(QFile::encodeName(path).constData(), SFM_READ, &info);
    if (!file)
        return 0;
    sf_close(file);
    return info.samplerate > 0 ? static_cast<double>(info.frames) / info.samplerate : 0;
}

} // namespace

KeptRecording::KeptRecording(RecordingFiles files, bool removeSpeakerEcho)
    : m_files(std::move(files))
    , m_removeSpeakerEcho(removeSpeakerEcho)
{ }

bool KeptRecording::hasCaptures() const
{
    return QFileInfo::exists(m_files.systemAudio()) || QFileInfo::exists(m_files.microphone());
}

double KeptRecording::capturedSeconds() const
{
    return std::max(secondsIn(m_files.systemAudio()), secondsIn(m_files.microphone()));
}

std::optional<QString> KeptRecording::start()
{
    return QStringLiteral("a kept recording does not record");
}

void KeptRecording::cancel()
{
    for (const QString &path : { m_files.systemAudio(), m_files.microphone(), m_files.mixed() })
        QFile::remove(path);
}

QCoro::Task<> KeptRecording::stop()
{
    // Only a mix that succeeded deletes the captures: a mixed file beside them is one
    // the process did not finish.
    if (!hasCaptures())
        co_return;
    m_mixFailure.reset();
    try {
        QCoro::Task<> mixing = AudioMixer::mixAudioFiles(
            { m_files.systemAudio(), m_files.microphone(), m_files.mixed(), m_removeSpeakerEcho },
            [](const QString &) {});
        co_await std::move(mixing);
    } catch (const DualRecorderError &error) {
        m_mixFailure = error.description();
    } catch (const std::exception &error) {
        m_mixFailure = QString::fromUtf8(error.what());
    }
    if (m_mixFailure) {
        qCCritical(lcDualRecorder, "Audio mixing failed: %s", qPrintable(*m_mixFailure));
        co_return;
    }
    if (QFileInfo(m_files.mixed()).size() > 0) {
        QFile::remove(m_files.systemAudio());
        QFile::remove(m_files.microphone());
    }
}
