#include "recording/DualRecorderCapture.h"

#include "audio/AlertSound.h"
#include "audio/DualRecorder.h"
#include "audio/MicrophonePermission.h"
#include "audio/SystemAudioPermission.h"
#include "recording/RecorderPlatform.h"

#include <QFile>
#include <QFileInfo>

DualRecorderCapture::DualRecorderCapture(const QString &folder, std::shared_ptr<SoundServer> server,
                                         std::shared_ptr<AlertSound> alertSound)
    : m_server(std::move(server))
    , m_recorder(new DualRecorder(folder, *m_server, std::move(alertSound)))
{
}

DualRecorderCapture::~DualRecorderCapture()
{
    if (!m_recorder)
        return;
    // The last reference to a capture may go while the recorder's own stop() is still
    // unwinding; deleting it from the event loop is always safe. The server stays
    // alive until the recorder, and its engines, are gone.
    QObject::connect(m_recorder, &QObject::destroyed, [server = m_server] {});
    m_recorder->deleteLater();
}

std::optional<QString> DualRecorderCapture::start()
{
    if (const std::optional<CaptureError> error = m_recorder->start())
        return describe(*error);
    return std::nullopt;
}

void DualRecorderCapture::pause()
{
    m_recorder->pause();
}

void DualRecorderCapture::resume()
{
    m_recorder->resume();
}

void DualRecorderCapture::cancel()
{
    if (!m_stopping)
        m_recorder->cancel();
}

QCoro::Task<> DualRecorderCapture::stop()
{
    // The caller holds this object until the task ends (shared ownership).
    if (m_recorder->isPaused())
        m_recorder->resume();
    m_stopping = true;
    QCoro::Task<> stopping = m_recorder->stop();
    co_await std::move(stopping);
    m_stopping = false;
    if (QFileInfo(finalMixedPath()).size() > 0) {
        QFile::remove(systemAudioPath());
        QFile::remove(microphonePath());
    }
}

QString DualRecorderCapture::finalMixedPath() const
{
    return m_recorder->finalMixedPath();
}

QString DualRecorderCapture::systemAudioPath() const
{
    return m_recorder->systemAudioPath();
}

QString DualRecorderCapture::microphonePath() const
{
    return m_recorder->microphonePath();
}

RecorderPlatform RecorderPlatform::onSoundServer(std::shared_ptr<SoundServer> server,
                                                 std::shared_ptr<AlertSound> alertSound, QString recordingsFolder)
{
    RecorderPlatform platform;
    platform.soundServer = server;
    platform.makeCapture = [server, alertSound](const QString &folder) -> std::shared_ptr<RecordingCapture> {
        return std::make_shared<DualRecorderCapture>(folder, server, alertSound);
    };
    platform.microphone = std::make_unique<MicrophonePermission>(*server);
    platform.systemAudio = std::make_unique<SystemAudioPermission>(*server);
    platform.recordingsFolder = std::move(recordingsFolder);
    return platform;
}
