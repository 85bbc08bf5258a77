#include "audio/MicRecorder.h"
#include "audio/pulse/PulseSoundServer.h"
#include "audio/SystemAudioPermission.h"
#include "audio/SystemRecorder.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"
#include "support/ToneAnalysis.h"
#include "support/TonePlayer.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <csignal>

// The sound server dies in the middle of a recording: no crash, no hang, a log
// line, and files that hold what was captured until then.
class TestServerDeath : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void recordingSurvivesTheServer()
    {
        const int daemon = qEnvironmentVariableIntValue("SELVARO_PULSE_DAEMON_PID");
        QVERIFY2(daemon > 0, "runs under scripts/fixtures/with-pulse");
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        auto system = std::make_unique<TonePlayer>(440, "speakers");
        auto microphone = std::make_unique<TonePlayer>(1000, "micfeed");
        PulseSoundServer server;
        LogCapture log;
        SystemRecorder systemRecorder(dir.filePath(QStringLiteral("death_system.wav")), server);
        MicRecorder micRecorder(dir.filePath(QStringLiteral("death_microphone.wav")), server);
        QVERIFY(!micRecorder.start());
        QVERIFY(!systemRecorder.start());
        QVERIFY(QTest::qWaitFor([&] { return systemRecorder.statistics().framesWritten > 48000 / 2
                                             && micRecorder.statistics().framesWritten > 48000 / 2; },
                                5000));

        QCOMPARE(::kill(daemon, SIGKILL), 0);
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
        ticker.start(10);
        QTRY_VERIFY(log.contains(QStringLiteral("Sound server connection lost")));
        QTest::qWait(300);
        QVERIFY(ticks > 10); // the event loop kept turning
        system.reset();
        microphone.reset();

        QElapsedTimer stopping;
        stopping.start();
        micRecorder.stop();
        systemRecorder.stop();
        QVERIFY(stopping.elapsed() < 1000);

        for (const QString &name : { QStringLiteral("death_system.wav"), QStringLiteral("death_microphone.wav") }) {
            const SoundFile file = SoundFile::read(dir.filePath(name));
            QVERIFY2(file.ok, qPrintable(file.error));
            QVERIFY(file.seconds() >= 0.5);
        }

        SystemAudioPermission permission(server);
        QTest::qWait(200);
        QTRY_COMPARE(permission.status(), Permission::unknown);
    }
};

QTEST_GUILESS_MAIN(TestServerDeath)
#include "tst_serverdeath.moc"
