#include "FakeSoundServer.h"

#include "audio/DualRecorder.h"
#include "support/LogCapture.h"
#include "support/MixerAnalysis.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThreadPool>

#include <memory>

using namespace MixerAnalysis;

namespace {

QString stampOf(const QString &path, const QString &suffix)
{
    const QString name = QFileInfo(path).fileName();
    return name.endsWith(suffix) ? name.chopped(suffix.size()) : QString();
}

void waitForStop(DualRecorder &recorder)
{
    QCoro::waitFor(recorder.stop());
}

} // namespace

// The dual recorder's rules, over a sound server that hands each capture a fixed tone.
class DualRecorderTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<FakeSoundServer> m_fake;
    std::shared_ptr<CountingAlertSound> m_sound;

    std::unique_ptr<DualRecorder> makeRecorder()
    {
        return std::make_unique<DualRecorder>(m_dir->path(), *m_fake, m_sound);
    }

private slots:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_fake = std::make_unique<FakeSoundServer>();
        m_fake->sources[CaptureSource::systemOutput] = {false, 440, 48000};
        m_fake->sources[CaptureSource::defaultInput] = {false, 1000, 48000};
        m_sound = std::make_shared<CountingAlertSound>();
    }

    void namesThreeFilesFromOneStamp()
    {
        const double before = static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000;
        const auto first = makeRecorder();
        const auto second = makeRecorder();
        const QString stamp = stampOf(first->systemAudioPath(), QStringLiteral("_system.wav"));
        QVERIFY(!stamp.isEmpty());
        QCOMPARE(stampOf(first->microphonePath(), QStringLiteral("_microphone.wav")), stamp);
        QCOMPARE(stampOf(first->finalMixedPath(), QStringLiteral("_mixed.m4a")), stamp);
        QCOMPARE(QFileInfo(first->finalMixedPath()).absolutePath(), QDir(m_dir->path()).absolutePath());
        bool ok = false;
        const double seconds = stamp.toDouble(&ok);
        QVERIFY(ok);
        QVERIFY(std::abs(seconds - before) < 5);
        QVERIFY(stamp.contains(QLatin1Char('.')));
        QVERIFY(stampOf(second->systemAudioPath(), QStringLiteral("_system.wav")) != stamp);

        QVERIFY(QDir(m_dir->path()).isEmpty());
        QVERIFY(!first->isRecording());
        QVERIFY(!first->isPaused());
        QCOMPARE(first->logs(), QString());
    }

    void startRunsMicrophoneThenSystemThenSound()
    {
        LogCapture log;
        const auto recorder = makeRecorder();
        QSignalSpy recording(recorder.get(), &DualRecorder::isRecordingChanged);
        QVERIFY(!recorder->start());
        QVERIFY(recorder->isRecording());
        QCOMPARE(recording.count(), 1);
        QCOMPARE(m_fake->live[CaptureSource::defaultInput], 1);
        QCOMPARE(m_fake->live[CaptureSource::systemOutput], 1);
        QThreadPool::globalInstance()->waitForDone();
        QCOMPARE(m_sound->plays.load(), 1);

        QStringList lines = log.lines(QStringLiteral("DualRecorder"));
        const QString sound = QStringLiteral("Triggered system sound to activate GlobalTap");
        // From the pool, at any moment after the system start.
        QVERIFY(lines.indexOf(sound) > lines.indexOf(QStringLiteral("System audio recording started")));
        QCOMPARE(lines.removeAll(sound), 1);
        QCOMPARE(lines,
                 (QStringList{QStringLiteral("start()"), QStringLiteral("Microphone recording started immediately"),
                              QStringLiteral("System audio recording started"),
                              QStringLiteral("Dual recording started")}));
        // The microphone capture was asked for before the system one.
        const QStringList all = log.lines();
        QVERIFY(all.indexOf(QRegularExpression(QStringLiteral(".*MicRecorder: start\\(\\)")))
                < all.indexOf(QRegularExpression(QStringLiteral(".*SystemRecorder: start\\(\\)"))));

        LogCapture again;
        QVERIFY(!recorder->start());
        QVERIFY(again.lines(QStringLiteral("DualRecorder")).contains(QStringLiteral("start() while already recording")));
        QCOMPARE(m_fake->started[CaptureSource::defaultInput], 1);
        QCOMPARE(recording.count(), 1);
    }

    void failingMicrophoneStartsNothingElse()
    {
        m_fake->sources[CaptureSource::defaultInput].refuse = true;
        const auto recorder = makeRecorder();
        const std::optional<CaptureError> error = recorder->start();
        QVERIFY(error && std::holds_alternative<MicRecorderError>(*error));
        QCOMPARE(describe(*error), QStringLiteral("Failed to start microphone recording"));
        QVERIFY(!recorder->isRecording());
        QCOMPARE(m_fake->started[CaptureSource::systemOutput], 0);
        QThreadPool::globalInstance()->waitForDone();
        QCOMPARE(m_sound->plays.load(), 0);
        recorder->cancel(); // what a discard does next: must be harmless
        QVERIFY(!recorder->isRecording());
    }

    void failingSystemStartLeavesMicrophoneRunning()
    {
        m_fake->sources[CaptureSource::systemOutput].refuse = true;
        const auto recorder = makeRecorder();
        const std::optional<CaptureError> error = recorder->start();
        QVERIFY(error && std::holds_alternative<GlobalTapError>(*error));
        QCOMPARE(describe(*error), QStringLiteral("Failed to start audio device: Access denied"));
        QVERIFY(!recorder->isRecording());
        QCOMPARE(m_fake->live[CaptureSource::defaultInput], 1);
        QCOMPARE(m_fake->live[CaptureSource::systemOutput], 0);
        QThreadPool::globalInstance()->waitForDone();
        QCOMPARE(m_sound->plays.load(), 0);

        // Cleaning up is the caller's: a cancel ends the microphone and deletes its file.
        QVERIFY(QFileInfo::exists(recorder->microphonePath()));
        recorder->cancel();
        QCOMPARE(m_fake->live[CaptureSource::defaultInput], 0);
        QVERIFY(!QFileInfo::exists(recorder->microphonePath()));
        QVERIFY(!QFileInfo::exists(recorder->systemAudioPath()));
    }

    void pauseAndResumeFollowTheRecordingFlag()
    {
        const auto recorder = makeRecorder();
        QSignalSpy paused(recorder.get(), &DualRecorder::isPausedChanged);
        recorder->pause();
        QVERIFY(!recorder->isPaused());
        QCOMPARE(paused.count(), 0);

        QVERIFY(!recorder->start());
        recorder->pause();
        QVERIFY(!recorder->isRecording());
        QVERIFY(recorder->isPaused());
        QVERIFY(m_fake->suspended[CaptureSource::defaultInput]);
        recorder->pause();
        QCOMPARE(paused.count(), 1);

        // Stopping while paused neither stops nor mixes.
        waitForStop(*recorder);
        QVERIFY(recorder->isPaused());
        QCOMPARE(recorder->logs(), QString());
        QCOMPARE(m_fake->live[CaptureSource::defaultInput], 1);

        recorder->resume();
        QVERIFY(recorder->isRecording());
        QVERIFY(!recorder->isPaused());
        QVERIFY(!m_fake->suspended[CaptureSource::defaultInput]);
        QCOMPARE(paused.count(), 2);
    }

    void resumeBeforeStartClaimsRecordingWithoutEngines()
    {
        LogCapture log;
        const auto recorder = makeRecorder();
        recorder->resume();
        QVERIFY(recorder->isRecording());
        QCOMPARE(m_fake->started[CaptureSource::defaultInput], 0);

        // Its stop() mixes nothing, says why, and returns normally.
        waitForStop(*recorder);
        QVERIFY(!recorder->isRecording());
        QVERIFY(recorder->logs().endsWith(QStringLiteral("ERROR: One or both audio files missing\n")));
        QVERIFY(!QFileInfo::exists(recorder->finalMixedPath()));
        const QStringList lines = log.lines(QStringLiteral("DualRecorder"));
        QVERIFY(lines.contains(QStringLiteral("Audio mixing failed: Audio files missing")));
        QCOMPARE(lines.last(), QStringLiteral("Stop completed, file ready at: ") + recorder->finalMixedPath());
    }

    void cancelOnlyWhenPaused()
    {
        const auto recorder = makeRecorder();
        QVERIFY(!recorder->start());
        recorder->cancel();
        QVERIFY(recorder->isRecording());
        QVERIFY(QFileInfo::exists(recorder->microphonePath()));
        QVERIFY(QFileInfo::exists(recorder->systemAudioPath()));

        LogCapture log;
        recorder->pause();
        recorder->cancel();
        QVERIFY(!recorder->isRecording());
        QVERIFY(!recorder->isPaused());
        QVERIFY(!QFileInfo::exists(recorder->microphonePath()));
        QVERIFY(!QFileInfo::exists(recorder->systemAudioPath()));
        QVERIFY(!QFileInfo::exists(recorder->finalMixedPath()));
        QVERIFY(log.lines(QStringLiteral("DualRecorder")).contains(QStringLiteral("Dual recording cancelled")));
    }

    void stopMixesBothFilesIntoOne()
    {
        LogCapture log;
        const auto recorder = makeRecorder();
        QSignalSpy logsChanged(recorder.get(), &DualRecorder::logsChanged);
        QSignalSpy pausedChanged(recorder.get(), &DualRecorder::isPausedChanged);
        QVERIFY(!recorder->start());
        QThreadPool::globalInstance()->waitForDone(); // the sound's line, out of the way
        // stop() hands back control while the mix runs on its worker.
        QCoro::Task<> stopping = recorder->stop();
        QVERIFY(!stopping.isReady());
        QVERIFY(!recorder->isRecording());
        QCoro::waitFor(stopping);
        QCOMPARE(pausedChanged.count(), 0);

        QVERIFY(!recorder->isRecording());
        QVERIFY(!recorder->isPaused());
        QVERIFY(recorder->logs().startsWith(QStringLiteral("=== STARTING AUDIO MIXING ===\nTimestams, ")));
        QVERIFY(recorder->logs().endsWith(QStringLiteral("=== MIXING COMPLETED SUCCESSFULLY ===\n")));
        QVERIFY(logsChanged.count() > 10);
        // The intermediate files stay for the session to delete after the upload.
        QVERIFY(QFileInfo::exists(recorder->systemAudioPath()));
        QVERIFY(QFileInfo::exists(recorder->microphonePath()));

        const Decoded out = decode(recorder->finalMixedPath());
        QCOMPARE(out.error, QString());
        QVERIFY(std::abs(out.duration - 1.0) < 0.05);
        QVERIFY(toneAmplitude(out.left, 4800, 43200, 440, 48000) > 0.4);
        QVERIFY(toneAmplitude(out.right, 4800, 43200, 1000, 48000) > 0.4);
        QVERIFY(toneAmplitude(out.right, 4800, 43200, 440, 48000) < 0.01);

        const QStringList lines = log.lines(QStringLiteral("DualRecorder"));
        const int stopAt = lines.indexOf(QStringLiteral("stop()"));
        QVERIFY(stopAt >= 0);
        QCOMPARE(lines.mid(stopAt),
                 (QStringList{QStringLiteral("stop()"), QStringLiteral("Dual recording stopped, starting mixing..."),
                              QStringLiteral("Audio mixing completed successfully"),
                              QStringLiteral("Stop completed, file ready at: ") + recorder->finalMixedPath()}));
    }

    // The session may drop its recorder while a stop is pending: the mix still finishes.
    void releasingTheRecorderDuringStop()
    {
        LogCapture log;
        auto recorder = makeRecorder();
        const QString output = recorder->finalMixedPath();
        QVERIFY(!recorder->start());
        QCoro::Task<> stopping = recorder->stop();
        QVERIFY(!stopping.isReady());
        recorder.reset();
        QCoro::waitFor(stopping);
        QVERIFY(QFileInfo(output).size() > 0);
        QVERIFY(log.lines(QStringLiteral("DualRecorder")).contains(QStringLiteral("Stop completed, file ready at: ") + output));
    }

    void stopWithOneSilentSourceLeavesNoFile()
    {
        m_fake->sources[CaptureSource::defaultInput].frames = 0;
        LogCapture log;
        const auto recorder = makeRecorder();
        QVERIFY(!recorder->start());
        waitForStop(*recorder);
        QVERIFY(recorder->logs().endsWith(QStringLiteral("ERROR: One file is empty (not yet supported)\n")));
        QVERIFY(!QFileInfo::exists(recorder->finalMixedPath()));
        QVERIFY(log.lines(QStringLiteral("DualRecorder"))
                    .contains(QStringLiteral("Audio mixing failed: Cannot mix with empty audio")));
    }
};

QTEST_GUILESS_MAIN(DualRecorderTest)
#include "DualRecorderTest.moc"
