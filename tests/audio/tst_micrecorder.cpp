#include "audio/MicRecorder.h"
#include "audio/pulse/PulseSoundServer.h"
#include "support/CaptureChecks.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"
#include "support/ToneAnalysis.h"
#include "support/TonePlayer.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <sndfile.h>

using namespace ToneAnalysis;

// The microphone against the private sound server: whatever is played into the
// "micfeed" sink is what the default source "mic" hears.
class TestMicRecorder : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void recordsTheMicrophoneAsMonoPcm()
    {
        TonePlayer microphone(1000, "micfeed");
        TonePlayer system(440, "speakers");
        PulseSoundServer server;
        LogCapture log;
        const QString path = m_dir.filePath(QStringLiteral("tone_microphone.wav"));
        MicRecorder recorder(path, server);
        QSignalSpy recording(&recorder, &MicRecorder::isRecordingChanged);
        QVERIFY(!recorder.start());
        QVERIFY(recorder.isRecording());
        QVERIFY(waitForFirstAudio(recorder));
        QElapsedTimer elapsed;
        elapsed.start();
        QTest::qWait(800);
        recorder.stop();
        const double recorded = static_cast<double>(elapsed.elapsed()) / 1000;
        QVERIFY(!recorder.isRecording());
        QCOMPARE(recording.count(), 2);

        QCOMPARE(QFileInfo(path).permissions() & (QFile::ReadGroup | QFile::ReadOther | QFile::WriteGroup | QFile::WriteOther),
                 QFileDevice::Permissions());
        const SoundFile file = SoundFile::read(path);
        QVERIFY2(file.ok, qPrintable(file.error));
        QCOMPARE(file.rate, 48000);
        QCOMPARE(file.channels, 1);
        QCOMPARE(file.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
        QVERIFY2(std::abs(file.seconds() - recorded) < 0.06,
                 qPrintable(QStringLiteral("file %1 s, recorded %2 s").arg(file.seconds()).arg(recorded)));
        const auto samples = file.channelSpan(0, 0.1, 0.5);
        QCOMPARE(dominantFrequency(samples, file.rate), 1000.0);
        QVERIFY(energyAt(samples, file.rate, 440) < energyAt(samples, file.rate, 1000) / 1000);
        const QStringList lines = log.lines(QStringLiteral("MicRecorder"));
        for (const char *line : { "start()", "Microphone recording started", "stop()", "Microphone recording stopped" })
            QVERIFY2(lines.contains(QLatin1String(line)), line);
    }

    void pausedTimeIsAbsent()
    {
        PulseSoundServer server;
        const QString path = m_dir.filePath(QStringLiteral("pause_microphone.wav"));
        MicRecorder recorder(path, server);
        auto before = std::make_unique<TonePlayer>(1000, "micfeed");
        QVERIFY(!recorder.start());
        QVERIFY(waitForFirstAudio(recorder));
        QElapsedTimer running;
        running.start();
        QTest::qWait(500);
        recorder.pause();
        qint64 recorded = running.elapsed();
        QVERIFY(!recorder.isRecording());
        QTest::qWait(150);
        before.reset();
        auto during = std::make_unique<TonePlayer>(880, "micfeed");
        QTest::qWait(400);
        during.reset();
        TonePlayer after(660, "micfeed");
        QTest::qWait(150);
        recorder.resume();
        QVERIFY(recorder.isRecording());
        running.restart();
        QTest::qWait(700);
        recorder.stop();
        recorded += running.elapsed();

        const SoundFile file = SoundFile::read(path);
        QVERIFY(file.ok);
        const auto all = file.channelSpan(0, 0, file.seconds());
        QVERIFY(energyAt(all, file.rate, 880) < energyAt(all, file.rate, 660) / 100);
        QVERIFY(toneAt(file, 0.1, 0.3, 1000));
        QVERIFY(toneAt(file, file.seconds() - 0.3, 0.25, 660));
        // A resumed source may take a moment to deliver again; nothing of the pause is in the file.
        QVERIFY2(file.seconds() < static_cast<double>(recorded) / 1000 + 0.06,
                 qPrintable(QStringLiteral("file %1 s, recorded %2 ms").arg(file.seconds()).arg(recorded)));
    }

    void guardsFollowTheState()
    {
        PulseSoundServer server;
        LogCapture log;
        const QString path = m_dir.filePath(QStringLiteral("guards_microphone.wav"));
        MicRecorder recorder(path, server);
        recorder.cancel(); // before start: only logs and clears the flag
        QVERIFY(!recorder.isRecording());
        QVERIFY(log.lines(QStringLiteral("MicRecorder")).contains(QStringLiteral("Microphone recording cancelled")));

        QVERIFY(!recorder.start());
        QVERIFY(!recorder.start()); // logged, no error, first recording untouched
        QCOMPARE(log.lines(QStringLiteral("MicRecorder")).count(QStringLiteral("start() while already recording")), 1);
        recorder.resume(); // while recording: nothing
        QCOMPARE(log.lines(QStringLiteral("MicRecorder")).count(QStringLiteral("Microphone recording resumed")), 0);
        recorder.pause();
        recorder.pause();
        QCOMPARE(log.lines(QStringLiteral("MicRecorder")).count(QStringLiteral("Microphone recording paused")), 1);
        recorder.stop(); // deliberately nothing while paused
        QVERIFY(!log.lines(QStringLiteral("MicRecorder")).contains(QStringLiteral("Microphone recording stopped")));
        QVERIFY(QFileInfo::exists(path));
        recorder.cancel();
        QVERIFY(!QFileInfo::exists(path));
        QVERIFY(!recorder.isRecording());
    }

    void unwritableLocationFailsWithItsReason()
    {
        PulseSoundServer server;
        MicRecorder recorder(m_dir.filePath(QStringLiteral("missing/folder/x_microphone.wav")), server);
        const auto error = recorder.start();
        QVERIFY(error);
        QVERIFY(std::holds_alternative<MicRecorderError>(*error));
        QVERIFY2(describe(*error).startsWith(QStringLiteral("Failed to open ")), qPrintable(describe(*error)));
        QVERIFY(!recorder.isRecording());
    }

    void noServerFailsToStart()
    {
        PulseSoundServer server("unix:/nonexistent/selvaro-test-socket");
        const QString path = m_dir.filePath(QStringLiteral("noserver_microphone.wav"));
        MicRecorder recorder(path, server);
        const auto error = recorder.start();
        QVERIFY(error);
        QCOMPARE(describe(*error), QStringLiteral("Failed to start microphone recording"));
        QVERIFY(!recorder.isRecording());
        QVERIFY(!QFileInfo::exists(path));
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TestMicRecorder)
#include "tst_micrecorder.moc"
