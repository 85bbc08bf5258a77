#include "audio/DualRecorder.h"

#include "audio/AlertSound.h"
#include "audio/AudioMixer.h"
#include "audio/DecimalText.h"
#include "audio/DualRecorderError.h"
#include "audio/LiveMixer.h"
#include "audio/MicRecorder.h"
#include "audio/SystemRecorder.h"
#include "common/Logging.h"

#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QThreadPool>

#include <atomic>
#include <chrono>
#include <cmath>

namespace {

// The wall clock in seconds since 1970. Two recorders made within the clock's
// resolution would share their files, so a repeated reading moves on to the next
// representable double.
QString makeStamp()
{
    static std::atomic<double> last = 0;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const double reading = std::chrono::duration<double>(now).count();
    double previous = last.load();
    double seconds = 0;
    do {
        seconds = reading > previous ? reading : std::nextafter(previous, HUGE_VAL);
    } while (!last.compare_exchange_weak(previous, seconds));
    return DecimalText::shortest(seconds);
}

} // namespace

DualRecorder::DualRecorder(
    const QString &baseDir, SoundServer &server, std::shared_ptr<AlertSound> alertSound, QObject *parent)
    : DualRecorder(RecordingFiles(baseDir, makeStamp()), server, std::move(alertSound), parent)
{ }

DualRecorder::DualRecorder(
    RecordingFiles files, SoundServer &server, std::shared_ptr<AlertSound> alertSound, QObject *parent)
    : QObject(parent)
    , m_files(std::move(files))
    , m_server(server)
    , m_alertSound(std::move(alertSound))
{ }

DualRecorder::~DualRecorder() = default;

CaptureFactory DualRecorder::factory(std::shared_ptr<SoundServer> server,
    std::shared_ptr<AlertSound> alertSound, std::function<bool()> removeSpeakerEcho)
{
    return
        [server, alertSound, removeSpeakerEcho](const QString &folder) -> std::shared_ptr<RecordingCapture> {
            // The last reference may go while the recorder's own stop() is still unwinding:
            // deleting it from the event loop is always safe. The server stays alive until
            // the recorder, and its engines, are gone.
            auto recorder = std::shared_ptr<DualRecorder>(
                new DualRecorder(folder, *server, alertSound), [server](DualRecorder *recorder) {
                    QObject::connect(recorder, &QObject::destroyed, [server] {});
                    recorder->deleteLater();
                });
            recorder->setRemoveSpeakerEcho(removeSpeakerEcho && removeSpeakerEcho());
            return recorder;
        };
}

AudioMixer::Files DualRecorder::mixFiles() const
{
    return { m_files.systemAudio(), m_files.microphone(), m_files.mixed(), m_removeSpeakerEcho };
}

void DualRecorder::appendLog(const QString &line)
{
    m_logs += line;
}

std::optional<QString> DualRecorder::start()
{
    qCDebug(lcDualRecorder, "start()");
    if (m_state == State::recording) {
        qCCritical(lcDualRecorder, "%s while already recording", "start()");
        return std::nullopt;
    }
    // The system recorder is made only right before its own start, and any earlier
    // pair is released here.
    m_systemRecorder.reset();
    m_micRecorder = std::make_unique<MicRecorder>(m_files.microphone(), m_server);
    // Both files begin at this instant, however long each start takes.
    const auto pressed = std::chrono::steady_clock::now();
    if (auto error = m_micRecorder->start(pressed))
        return describe(*error);
    qCDebug(lcDualRecorder, "Microphone recording started immediately");

    m_systemRecorder = std::make_unique<SystemRecorder>(m_files.systemAudio(), m_server);
    // Deliberately leaves the microphone running: the caller decides what to clean up.
    if (auto error = m_systemRecorder->start(pressed))
        return describe(*error);
    qCDebug(lcDualRecorder, "System audio recording started");

    // Makes some output appear at once so that the system capture delivers from the
    // first moment. No delay, and never on the main thread: playing blocks.
    QThreadPool::globalInstance()->start([sound = m_alertSound] {
        if (sound)
            sound->play();
        qCDebug(lcDualRecorder, "Triggered system sound to activate GlobalTap");
    });

    m_state = State::recording;
    // The mix follows the recording from here on, so that stop() only has to finish it.
    m_liveMixer.reset();
    m_liveMixer = std::make_unique<LiveMixer>(mixFiles());
    qCDebug(lcDualRecorder, "Dual recording started");
    return std::nullopt;
}

void DualRecorder::pause()
{
    qCDebug(lcDualRecorder, "pause()");
    if (m_state != State::recording)
        return;
    if (m_systemRecorder)
        m_systemRecorder->pause();
    if (m_micRecorder)
        m_micRecorder->pause();
    m_state = State::paused;
    qCDebug(lcDualRecorder, "Dual recording paused");
}

void DualRecorder::resume()
{
    qCDebug(lcDualRecorder, "resume()");
    if (m_state == State::recording)
        return;
    if (m_systemRecorder)
        m_systemRecorder->resume();
    if (m_micRecorder)
        m_micRecorder->resume();
    m_state = State::recording;
    qCDebug(lcDualRecorder, "Dual recording resumed");
}

void DualRecorder::cancel()
{
    qCDebug(lcDualRecorder, "cancel()");
    // Deliberately honoured only when not running: discarding a running recording
    // deletes nothing here (the flow closes it first). During stop() the mixer reads
    // the files, so a discard then must not delete them.
    if (m_state == State::recording || m_state == State::stopping)
        return;
    if (m_systemRecorder)
        m_systemRecorder->cancel();
    if (m_micRecorder)
        m_micRecorder->cancel();
    // The live mix goes first (it takes its partial output with it), then whatever
    // mixed file is left.
    m_liveMixer.reset();
    QFile::remove(m_files.mixed());
    m_state = State::ended;
    qCDebug(lcDualRecorder, "Dual recording cancelled");
}

QCoro::Task<> DualRecorder::stop()
{
    qCDebug(lcDualRecorder, "stop()");
    if (m_state != State::recording && m_state != State::paused && m_state != State::closed)
        co_return;
    // Both close their files before the mix reads them.
    close();
    m_state = State::stopping;
    m_mixFailure.reset();
    qCDebug(lcDualRecorder, "Dual recording stopped, starting mixing...");

    // Nothing after the await touches the recorder unless it is still there: its owner
    // may have let it go.
    QPointer<DualRecorder> self(this);
    const QString output = m_files.mixed();
    const QStringList intermediate { m_files.systemAudio(), m_files.microphone() };
    std::optional<QString> failure;
    try {
        co_await mixAudioFiles();
        qCDebug(lcDualRecorder, "Audio mixing completed successfully");
    } catch (const DualRecorderError &error) {
        failure = error.description();
    } catch (const std::exception &error) {
        // Anything else (memory running out) is a failed mix too: stop() never throws.
        failure = QString::fromUtf8(error.what());
    }
    if (failure)
        qCCritical(lcDualRecorder, "Audio mixing failed: %s", qPrintable(*failure));
    qCDebug(lcDualRecorder, "Stop completed, file ready at: %s", qPrintable(output));
    // A failed mix leaves the recorder closed, its two files kept for the next stop().
    if (self) {
        self->m_state = failure ? State::closed : State::ended;
        self->m_mixFailure = failure;
    }
    // A retry sends the mixed file, so the two captures would only pile up in the folder.
    if (!failure && QFileInfo(output).size() > 0) {
        for (const QString &path : intermediate)
            QFile::remove(path);
    }
}

void DualRecorder::close()
{
    if (m_state != State::recording && m_state != State::paused)
        return;
    // A paused engine closes without taking anything in.
    if (m_systemRecorder)
        m_systemRecorder->stop();
    if (m_micRecorder)
        m_micRecorder->stop();
    m_state = State::closed;
}

std::optional<WriteFailure> DualRecorder::writeFailure() const
{
    for (const SourceRecorder *recorder : { static_cast<const SourceRecorder *>(m_systemRecorder.get()),
             static_cast<const SourceRecorder *>(m_micRecorder.get()) }) {
        if (recorder) {
            if (auto failure = recorder->writeFailure())
                return failure;
        }
    }
    return std::nullopt;
}

void DualRecorder::flush()
{
    if (m_systemRecorder)
        m_systemRecorder->flush();
    if (m_micRecorder)
        m_micRecorder->flush();
}

RecordingCapture::Levels DualRecorder::takeLevels()
{
    return { m_systemRecorder ? m_systemRecorder->takeLevel() : 0.0f,
        m_micRecorder ? m_micRecorder->takeLevel() : 0.0f, m_micRecorder && m_micRecorder->deviceMissing() };
}

QCoro::Task<> DualRecorder::mixAudioFiles()
{
    // Transcript lines can arrive after the recorder is gone; then nobody reads them.
    QPointer<DualRecorder> self(this);
    AudioMixer::Transcript transcript = [self](const QString &line) {
        if (self)
            self->appendLog(line);
    };
    // Kept by this frame until the mix is finished: the recorder may go first.
    const std::unique_ptr<LiveMixer> live = std::move(m_liveMixer);
    // Built outside the co_await expression: GCC 12 destroys temporaries of an awaited
    // full-expression twice, which here released the shared path strings once too often.
    QCoro::Task<> mixing = live ? live->finish(std::move(transcript))
                                : AudioMixer::mixAudioFiles(mixFiles(), std::move(transcript));
    co_await std::move(mixing);
}
