#include "audio/GlobalTap.h"
#include "audio/pulse/PulseSoundServer.h"
#include "audio/SystemRecorder.h"
#include "support/CaptureChecks.h"
#include "support/LogCapture.h"
#include "support/Pactl.h"
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

// System audio capture against the private sound server: the default sink
// "speakers" carries a 440 Hz tone, the microphone feed a 1000 Hz one that must
// never reach the system file.
class TestSystemRecorder : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(!qEnvironmentVariableIsEmpty("PULSE_SERVER"), "runs under scripts/fixtures/with-pulse");
    }

    void tapActivatesOnceAndInvalidatesOnce()
    {
        PulseSoundServer server;
        GlobalTap tap(server, false);
        tap.invalidate(); // never activated: nothing happens
        QVERIFY(!tap.isActivated());
        tap.activate();
        QVERIFY(tap.errorMessage().isEmpty());
        QVERIFY(tap.tapStreamDescription());
        QCOMPARE(tap.tapStreamDescription()->rate, 48000);
        QCOMPARE(tap.tapStreamDescription()->channels, 2);
        int invalidations = 0;
        int blocks = 0;
        QVERIFY(!tap.run([&blocks](const void *, qint64) { ++blocks; }, [&invalidations](GlobalTap &) { ++invalidations; }));
        QTRY_VERIFY(blocks > 0);
        tap.invalidate();
        tap.invalidate();
        QCOMPARE(invalidations, 1);
        const int after = blocks;
        QTest::qWait(100);
        QCOMPARE(blocks, after); // no block after invalidate() returned
    }

    void tapFailsWithoutServerAndStaysFailed()
    {
        PulseSoundServer server("unix:/nonexistent/selvaro-test-socket");
        GlobalTap tap(server, false);
        QSignalSpy changed(&tap, &GlobalTap::errorMessageChanged);
        tap.activate();
        QVERIFY(tap.errorMessage().startsWith(QStringLiteral("Error reading data for default sink: ")));
        QVERIFY(!tap.tapStreamDescription());
        tap.activate(); // a second call does nothing, even after a failed first
        QCOMPARE(changed.count(), 1);

        SystemRecorder recorder(m_dir.filePath(QStringLiteral("noserver_system.wav")), server);
        const auto error = recorder.start();
        QVERIFY(error);
        QVERIFY(std::holds_alternative<SystemRecorderError>(*error));
        QCOMPARE(describe(*error), QStringLiteral("Tap stream description not available."));
    }

    void recordsToneAsPrivateFloatWav()
    {
        TonePlayer system(440, "speakers");
        TonePlayer microphone(1000, "micfeed");
        QVERIFY(system.isPlaying() && microphone.isPlaying());
        PulseSoundServer server;
        LogCapture log;
        const QString path = m_dir.filePath(QStringLiteral("tone_system.wav"));
        SystemRecorder recorder(path, server);
        QVERIFY(!recorder.start());
        QVERIFY(QFileInfo::exists(path));
        QVERIFY(waitForFirstAudio(recorder));
        QElapsedTimer elapsed;
        elapsed.start();
        QTest::qWait(1000);
        recorder.stop();
        const double recorded = static_cast<double>(elapsed.elapsed()) / 1000;

        QCOMPARE(QFileInfo(path).permissions() & ~(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser),
                 QFileDevice::Permissions());
        const SoundFile file = SoundFile::read(path);
        QVERIFY2(file.ok, qPrintable(file.error));
        // Small files stay plain WAV (libsndfile names the extensible header WAVEX).
        QVERIFY((file.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_WAV || (file.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_WAVEX);
        QCOMPARE(file.format & SF_FORMAT_SUBMASK, SF_FORMAT_FLOAT);
        QCOMPARE(file.rate, 48000);
        QCOMPARE(file.channels, 2);
        QVERIFY2(std::abs(file.seconds() - recorded) < 0.06,
                 qPrintable(QStringLiteral("file %1 s, recorded %2 s").arg(file.seconds()).arg(recorded)));
        QVERIFY(toneAt(file, 0.2, 0.6, 440));
        const auto right = file.channelSpan(1, 0.2, 0.6);
        QCOMPARE(dominantFrequency(right, file.rate), 440.0);
        QVERIFY(energyAt(right, file.rate, 1000) < energyAt(right, file.rate, 440) / 1000);

        QVERIFY(log.lines(QStringLiteral("SystemRecorder")).contains(QStringLiteral("start()")));
        QVERIFY(log.lines(QStringLiteral("SystemRecorder")).contains(QStringLiteral("stop()")));
        QVERIFY(log.lines(QStringLiteral("GlobalTap")).contains(QStringLiteral("activate()")));
        QVERIFY(log.lines(QStringLiteral("GlobalTap")).contains(QStringLiteral("invalidate()")));
        QVERIFY(log.contains(QStringLiteral("Using audio format: 48000 Hz, 2 ch, float32, interleaved")));
    }

    void pauseDropsThePausedSpan()
    {
        PulseSoundServer server;
        const QString path = m_dir.filePath(QStringLiteral("pause_system.wav"));
        SystemRecorder recorder(path, server);
        QSignalSpy paused(&recorder, &SystemRecorder::isPausedChanged);
        auto before = std::make_unique<TonePlayer>(440, "speakers");
        QVERIFY(!recorder.start());
        QVERIFY(waitForFirstAudio(recorder));
        QElapsedTimer running;
        running.start();
        QTest::qWait(600);
        recorder.pause();
        qint64 recorded = running.elapsed();
        QVERIFY(recorder.isPaused());
        QTest::qWait(200);
        before.reset();
        auto during = std::make_unique<TonePlayer>(880, "speakers");
        QTest::qWait(600);
        during.reset();
        TonePlayer after(660, "speakers");
        QTest::qWait(200);
        recorder.resume();
        running.restart();
        QTest::qWait(600);
        recorder.stop();
        recorded += running.elapsed();
        QCOMPARE(paused.count(), 2);

        const SoundFile file = SoundFile::read(path);
        QVERIFY(file.ok);
        // Only the unpaused spans, back to back: no 880 Hz, no room for it.
        QVERIFY2(std::abs(file.seconds() - static_cast<double>(recorded) / 1000) < 0.06,
                 qPrintable(QStringLiteral("file %1 s, recorded %2 ms").arg(file.seconds()).arg(recorded)));
        QVERIFY(toneAt(file, 0.1, 0.4, 440));
        QVERIFY(toneAt(file, 0.8, 0.3, 660));
        const auto all = file.channelSpan(0, 0, file.seconds());
        QVERIFY(energyAt(all, file.rate, 880) < energyAt(all, file.rate, 660) / 100);
    }

    void misorderedCallsAreLoggedAndIgnored()
    {
        PulseSoundServer server;
        LogCapture log;
        const QString path = m_dir.filePath(QStringLiteral("guards_system.wav"));
        SystemRecorder recorder(path, server);
        QVERIFY(!recorder.start());
        recorder.resume();
        recorder.pause();
        recorder.pause();
        QVERIFY(recorder.isPaused());
        const QStringList lines = log.lines(QStringLiteral("SystemRecorder"));
        QCOMPARE(lines.count(QStringLiteral("resume() called while not paused")), 1);
        QCOMPARE(lines.count(QStringLiteral("pause() called while already paused")), 1);
        QCOMPARE(lines.count(QStringLiteral("Recording paused")), 1);
        recorder.stop();
        QVERIFY(!recorder.isPaused());
        recorder.pause();
        QVERIFY(log.lines(QStringLiteral("SystemRecorder")).contains(QStringLiteral("pause() called while tap not active")));
        QVERIFY(SoundFile::read(path).ok);
    }

    void cancelDeletesTheFile()
    {
        PulseSoundServer server;
        LogCapture log;
        const QString path = m_dir.filePath(QStringLiteral("cancel_system.wav"));
        SystemRecorder recorder(path, server);
        QVERIFY(!recorder.start());
        QTest::qWait(200);
        recorder.cancel();
        QVERIFY(!QFileInfo::exists(path));
        QVERIFY(log.lines(QStringLiteral("SystemRecorder")).contains(QStringLiteral("Deleted recording file: ") + path));
        recorder.cancel();
        QVERIFY(log.lines(QStringLiteral("SystemRecorder")).contains(QStringLiteral("No file to delete at: ") + path));
    }

    // A headset that becomes the default and then disappears (a profile switch):
    // the capture follows the new default, then falls back to the speakers — and
    // never records the microphone, where the server would move a plain stream.
    void followsTheDefaultSink()
    {
        bool ok = false;
        const QString module = pactl({ QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                                       QStringLiteral("sink_name=headset"), QStringLiteral("rate=44100"),
                                       QStringLiteral("channels=2") },
                                     &ok);
        QVERIFY(ok);
        TonePlayer speakers(440, "speakers");
        TonePlayer headset(660, "headset");
        TonePlayer microphone(1000, "micfeed");
        PulseSoundServer server;
        LogCapture log;
        const QString path = m_dir.filePath(QStringLiteral("follow_system.wav"));
        SystemRecorder recorder(path, server);
        QVERIFY(!recorder.start());
        QVERIFY(waitForFirstAudio(recorder));
        QElapsedTimer elapsed;
        elapsed.start();
        QTest::qWait(700);
        // A newly followed monitor starts delivering late, later still on a loaded
        // machine: stay on each sink until the server has delivered a good part of
        // a second from it, rather than for a fixed time.
        const auto received = [&recorder] {
            const SystemRecorder::Statistics counts = recorder.statistics();
            return counts.framesDelivered - counts.framesOfSilence;
        };
        const auto waitForAudio = [&](double seconds) {
            const quint64 from = received();
            return QTest::qWaitFor([&] { return received() >= from + static_cast<quint64>(seconds * 48000); }, 8000);
        };
        pactl({ QStringLiteral("set-default-sink"), QStringLiteral("headset") }, &ok);
        QVERIFY(ok);
        QVERIFY(waitForAudio(0.8));
        pactl({ QStringLiteral("unload-module"), module }, &ok);
        QVERIFY(ok);
        QVERIFY(waitForAudio(0.8));
        recorder.stop();
        const double recorded = static_cast<double>(elapsed.elapsed()) / 1000;

        const SoundFile file = SoundFile::read(path);
        QVERIFY(file.ok);
        QCOMPARE(file.rate, 48000); // the format read at start holds throughout
        // A sink's monitor starts late after a switch, so look for the order of
        // the tones rather than exact times: speakers, headset, speakers again.
        QStringList sequence;
        for (double t = 0; t + 0.2 <= file.seconds(); t += 0.1) {
            const QString name = toneAt(file, t, 0.2, 440) ? QStringLiteral("speakers")
                                 : toneAt(file, t, 0.2, 660) ? QStringLiteral("headset")
                                                             : QString();
            if (!name.isEmpty() && (sequence.isEmpty() || sequence.last() != name))
                sequence.append(name);
        }
        QVERIFY2(sequence.size() >= 3 && sequence.first() == QStringLiteral("speakers")
                     && sequence.contains(QStringLiteral("headset")) && sequence.last() == QStringLiteral("speakers"),
                 qPrintable(sequence.join(QLatin1Char(' '))));
        const auto all = file.channelSpan(0, 0, file.seconds());
        QVERIFY(energyAt(all, file.rate, 1000) < energyAt(all, file.rate, 440) / 1000);
        // Silence fills the switches, so the timeline matches the clock.
        QVERIFY2(std::abs(file.seconds() - recorded) < 0.3,
                 qPrintable(QStringLiteral("file %1 s, recorded %2 s").arg(file.seconds()).arg(recorded)));
        QVERIFY(log.contains(QStringLiteral("Default output is now headset")));
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TestSystemRecorder)
#include "tst_systemrecorder.moc"
