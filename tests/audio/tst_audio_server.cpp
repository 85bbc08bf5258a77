#include "audio/MicRecorder.h"
#include "audio/SystemRecorder.h"
#include "audio/pulse/PulseSoundServer.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"
#include "support/TonePlayer.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <csignal>

// The sound server dies under a recording and a new one comes up on the same socket (a
// desktop restarting its audio): no crash, no hang, a log line; the capture reconnects
// by itself, and the outage is silence in the file rather than cut out of its timeline.
// On PipeWire it is pipewire-pulse that dies and a PulseAudio that comes up: what is
// tested is the client's side of the restart.
class AudioServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void recordingSurvivesAServerRestart()
    {
        const int daemon = qEnvironmentVariableIntValue("SELVARO_PULSE_DAEMON_PID");
        const QString socket = qEnvironmentVariable("PULSE_SERVER").mid(5);
        QVERIFY2(daemon > 0 && !socket.isEmpty(), "runs under scripts/fixtures/with-pulse");
        QTemporaryDir dir;
        auto first = std::make_unique<TonePlayer>(440, "speakers");
        auto voice = std::make_unique<TonePlayer>(1000, "micfeed");
        PulseSoundServer server;
        LogCapture log;
        SystemRecorder system(dir.filePath(QStringLiteral("restart_system.wav")), server);
        MicRecorder microphone(dir.filePath(QStringLiteral("restart_microphone.wav")), server);
        QVERIFY(!microphone.start() && !system.start());
        const auto heard = [](const SourceRecorder &recorder) {
            return recorder.statistics().framesDelivered - recorder.statistics().framesOfSilence;
        };
        QVERIFY(QTest::qWaitFor([&] { return heard(system) > 24000 && heard(microphone) > 24000; }, 5000));
        QElapsedTimer elapsed;
        elapsed.start();

        QCOMPARE(::kill(daemon, SIGKILL), 0);
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
        ticker.start(10);
        QTRY_VERIFY(log.contains(QStringLiteral("Sound server connection lost")));
        first.reset();
        voice.reset();
        QTest::qWait(300);
        QVERIFY(ticks > 10); // the event loop kept turning

        QProcess restarted;
        restarted.start(QStringLiteral("pulseaudio"),
            { QStringLiteral("-n"), QStringLiteral("--daemonize=no"), QStringLiteral("--use-pid-file=no"),
                QStringLiteral("--exit-idle-time=-1"), QStringLiteral("--log-target=stderr"),
                QStringLiteral("--log-level=error"),
                QStringLiteral("--load=module-native-protocol-unix auth-anonymous=1 socket=") + socket,
                QStringLiteral("--load=module-null-sink sink_name=speakers rate=48000 channels=2") });
        QVERIFY(restarted.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(QStringLiteral("Reconnected to the sound server")), 5000);
        TonePlayer after(660, "speakers");
        QVERIFY(after.isPlaying());
        const quint64 before = heard(system);
        QTRY_VERIFY_WITH_TIMEOUT(heard(system) > before + 24000, 5000); // audio again, not just silence
        QTest::qWait(300);
        QElapsedTimer stopping;
        stopping.start();
        microphone.stop();
        system.stop();
        QVERIFY(stopping.elapsed() < 1000);
        const double recorded = static_cast<double>(elapsed.elapsed()) / 1000;
        restarted.kill();
        restarted.waitForFinished();

        const SoundFile file = SoundFile::read(dir.filePath(QStringLiteral("restart_system.wav")));
        // The tone before the restart (the wait for the first block is silence) and after it.
        QVERIFY(file.toneAt(
            static_cast<double>(system.statistics().framesBeforeFirstBlock) / 48000 + 0.1, 0.3, 440));
        QVERIFY(file.toneAt(file.seconds() - 0.3, 0.25, 660));
        QVERIFY2(file.seconds() > recorded + 0.3,
            qPrintable(QStringLiteral("file %1 s, recorded %2 s").arg(file.seconds()).arg(recorded)));
        const SoundFile voiceFile = SoundFile::read(dir.filePath(QStringLiteral("restart_microphone.wav")));
        QVERIFY2(voiceFile.error.isEmpty() && voiceFile.seconds() >= 0.5, qPrintable(voiceFile.error));
    }
};

QTEST_GUILESS_MAIN(AudioServer)
#include "tst_audio_server.moc"
