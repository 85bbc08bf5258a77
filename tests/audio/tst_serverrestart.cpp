#include "audio/pulse/PulseSoundServer.h"
#include "audio/SystemRecorder.h"
#include "support/CaptureChecks.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"
#include "support/TonePlayer.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

// The sound server restarts under a recording (a desktop restarting its audio):
// the capture reconnects by itself and the outage becomes silence in the file.
class TestServerRestart : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void reconnectsWhenTheServerReturns()
    {
        const int daemon = qEnvironmentVariableIntValue("SELVARO_PULSE_DAEMON_PID");
        const QString server = qEnvironmentVariable("PULSE_SERVER");
        QVERIFY2(daemon > 0 && server.startsWith(QStringLiteral("unix:")), "runs under scripts/fixtures/with-pulse");
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("restart_system.wav"));
        LogCapture log;
        PulseSoundServer sound;
        SystemRecorder recorder(path, sound);
        auto first = std::make_unique<TonePlayer>(440, "speakers");
        QVERIFY(!recorder.start());
        QVERIFY(waitForFirstAudio(recorder));
        QElapsedTimer elapsed;
        elapsed.start();
        QTest::qWait(500);

        QCOMPARE(::kill(daemon, SIGKILL), 0);
        QTRY_VERIFY(log.contains(QStringLiteral("Sound server connection lost")));
        first.reset();
        QProcess restarted;
        restarted.start(QStringLiteral("pulseaudio"),
                        { QStringLiteral("-n"), QStringLiteral("--daemonize=no"), QStringLiteral("--use-pid-file=no"),
                          QStringLiteral("--exit-idle-time=-1"), QStringLiteral("--log-target=stderr"),
                          QStringLiteral("--log-level=error"),
                          QStringLiteral("--load=module-native-protocol-unix auth-anonymous=1 socket=") + server.mid(5),
                          QStringLiteral("--load=module-null-sink sink_name=speakers rate=48000 channels=2") });
        QVERIFY(restarted.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(QStringLiteral("Reconnected to the sound server")), 5000);
        TonePlayer after(660, "speakers");
        QVERIFY(after.isPlaying());
        // Audio again, not just the silence that stands for the outage.
        auto heard = [&recorder] {
            const SystemRecorder::Statistics statistics = recorder.statistics();
            return statistics.framesDelivered - statistics.framesOfSilence;
        };
        const quint64 before = heard();
        QTRY_VERIFY_WITH_TIMEOUT(heard() > before + 48000 / 2, 5000);
        QTest::qWait(300);
        recorder.stop();
        const double recorded = static_cast<double>(elapsed.elapsed()) / 1000;
        restarted.kill();
        restarted.waitForFinished();

        const SoundFile file = SoundFile::read(path);
        QVERIFY2(file.ok, qPrintable(file.error));
        QVERIFY(toneAt(file, 0.1, 0.3, 440));
        QVERIFY(toneAt(file, file.seconds() - 0.3, 0.25, 660));
        // The outage is in the file as silence, not cut out of the timeline.
        QVERIFY2(file.seconds() > recorded - 0.2,
                 qPrintable(QStringLiteral("file %1 s, recorded %2 s").arg(file.seconds()).arg(recorded)));
    }
};

QTEST_GUILESS_MAIN(TestServerRestart)
#include "tst_serverrestart.moc"
