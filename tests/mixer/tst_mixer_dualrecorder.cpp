#include "audio/DualRecorder.h"
#include "support/FakeSoundServer.h"
#include "support/LogCapture.h"
#include "support/MixerAnalysis.h"
#include "support/ToneAnalysis.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>
#include <QThreadPool>

#include <csignal>
#include <sys/resource.h>

using namespace Qt::StringLiterals;

constexpr auto mic = CaptureSource::defaultInput;
constexpr auto speakers = CaptureSource::systemOutput;

// The dual recorder's rules, over a sound server that hands each capture a second of
// its tone at start (440 Hz for the speakers, 1000 Hz for the microphone).
class MixerDualRecorder : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<FakeSoundServer> m_fake;
    std::shared_ptr<CountingAlertSound> m_sound;
    std::unique_ptr<DualRecorder> m_recorder;

    [[nodiscard]] QStringList files() const { return QDir(m_dir->path()).entryList(QDir::Files); }
    [[nodiscard]] QString named(const char *suffix) const
    {
        return QFileInfo(m_recorder->systemAudioPath()).fileName().chopped(11) + QLatin1String(suffix);
    }

private slots:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_fake = std::make_unique<FakeSoundServer>();
        for (const auto &[source, frequency] : { std::pair(speakers, 440.0), std::pair(mic, 1000.0) }) {
            m_fake->sources[source].frequency = frequency;
            m_fake->sources[source].frames = 48000;
        }
        m_sound = std::make_shared<CountingAlertSound>();
        m_recorder = std::make_unique<DualRecorder>(m_dir->path(), *m_fake, m_sound);
    }
    void cleanup()
    {
        QThreadPool::globalInstance()->waitForDone();
        m_recorder.reset(); // before the server its engines capture from
    }

    void namesThreeFilesFromOneStamp()
    {
        const QString stamp = named("");
        QCOMPARE(m_recorder->microphonePath(), QDir(m_dir->path()).filePath(named("_microphone.wav")));
        QCOMPARE(m_recorder->finalMixedPath(), QDir(m_dir->path()).filePath(named("_mixed.m4a")));
        QVERIFY(stamp.contains(u'.') && std::abs(stamp.toDouble() - QDateTime::currentSecsSinceEpoch()) < 5);
        QVERIFY(!DualRecorder(m_dir->path(), *m_fake, m_sound).systemAudioPath().contains(stamp));
        QVERIFY(files().isEmpty());
    }

    void startsMicrophoneThenSystemThenSound()
    {
        LogCapture log;
        QVERIFY(!m_recorder->start());
        QVERIFY(!m_recorder->start());
        QVERIFY(m_recorder->isRecording());
        QCOMPARE(m_fake->sources[mic].live + m_fake->sources[speakers].live, 2);
        QCOMPARE(m_fake->outputReads, 1); // the default output is read once per start
        QThreadPool::globalInstance()->waitForDone();
        QCOMPARE(m_sound->plays.load(), 1);
        QCOMPARE(log.lines(u"DualRecorder"_s).filter(u"start"_s),
            (QStringList { u"start()"_s, u"Microphone recording started immediately"_s,
                u"System audio recording started"_s, u"Dual recording started"_s, u"start()"_s,
                u"start() while already recording"_s }));
        QVERIFY(log.lines().indexOf(u"app.selvaro.recorder.MicRecorder: start()"_s)
            < log.lines().indexOf(u"app.selvaro.recorder.SystemRecorder: start()"_s));
    }

    // A failed system start leaves the microphone running for the caller to cancel.
    void failedStarts_data()
    {
        QTest::addColumn<bool>("refuseMicrophone");
        QTest::addColumn<QString>("error");
        QTest::newRow("microphone") << true << u"Failed to start microphone recording"_s;
        QTest::newRow("system") << false << u"Failed to start audio device: Access denied"_s;
    }

    void failedStarts()
    {
        QFETCH(bool, refuseMicrophone);
        QFETCH(QString, error);
        m_fake->sources[refuseMicrophone ? mic : speakers].refuse = true;
        QCOMPARE(m_recorder->start().value_or(QString()), error);
        QVERIFY(!m_recorder->isRecording());
        QCOMPARE(m_fake->sources[mic].live, refuseMicrophone ? 0 : 1);
        m_recorder->cancel();
        QCOMPARE(m_fake->sources[mic].live + m_fake->sources[speakers].live, 0);
        QVERIFY(files().isEmpty());
        QThreadPool::globalInstance()->waitForDone();
        QCOMPARE(m_sound->plays.load(), 0);
    }

    void guardsFollowTheState()
    {
        m_recorder->pause(); // before start: nothing
        QVERIFY(!m_recorder->isPaused());
        QVERIFY(!m_recorder->start());
        QTRY_VERIFY(QFileInfo::exists(m_recorder->finalMixedPath())); // the mix follows
        m_recorder->cancel(); // while recording: nothing
        QVERIFY(m_recorder->isRecording() && files().size() == 3);
        m_recorder->pause();
        QVERIFY(m_recorder->isPaused() && m_fake->sources[mic].suspended);
        m_recorder->resume();
        QVERIFY(m_recorder->isRecording() && !m_fake->sources[mic].suspended);
        m_recorder->pause();
        m_recorder->cancel(); // paused: both files deleted, and the partial mix
        QVERIFY(!m_recorder->isPaused() && !m_recorder->isRecording() && files().isEmpty());

        // resume() looks at "recording" only: a never-started recorder claims to record,
        // and its stop() mixes nothing and says why.
        DualRecorder fresh(m_dir->path(), *m_fake, m_sound);
        fresh.resume();
        QVERIFY(fresh.isRecording());
        QCoro::waitFor(fresh.stop());
        QVERIFY(fresh.logs().endsWith(u"ERROR: One or both audio files missing\n"_s) && files().isEmpty());
    }

    // From recording or from paused, stop() mixes without blocking, ignores a discard
    // meanwhile, and once the mix is there the two captures go. A paused recorder keeps
    // what arrives during the pause out of the mix.
    void stopMixes_data()
    {
        QTest::addColumn<bool>("paused");
        QTest::newRow("recording") << false;
        QTest::newRow("paused") << true;
    }

    void stopMixes()
    {
        QFETCH(bool, paused);
        LogCapture log;
        QVERIFY(!m_recorder->start());
        if (paused) {
            // The writer drops what it has not written by the pause.
            QTRY_VERIFY(QFileInfo(m_recorder->systemAudioPath()).size() >= 48000 * 8);
            m_recorder->pause();
            m_fake->deliver(speakers, 48000);
            m_fake->deliver(mic, 48000);
        }
        QThreadPool::globalInstance()->waitForDone();
        QCoro::Task<> stopping = m_recorder->stop();
        QVERIFY(!stopping.isReady() && !m_recorder->isRecording() && !m_recorder->isPaused());
        m_recorder->cancel();
        QCoro::waitFor(stopping);
        QVERIFY(m_recorder->logs().startsWith(u"=== STARTING AUDIO MIXING ===\nTimestams, "_s));
        QVERIFY(m_recorder->logs().endsWith(u"=== MIXING COMPLETED SUCCESSFULLY ===\n"_s));
        QCOMPARE(files(), QStringList { named("_mixed.m4a") });
        const MixerAnalysis::Decoded out = MixerAnalysis::decode(m_recorder->finalMixedPath());
        QVERIFY(std::abs(out.duration - 1.0) < 0.05);
        QVERIFY(ToneAnalysis::amplitudeAt(std::span(out.left).subspan(4800, 38400), 48000, 440) > 0.4);
        QVERIFY(ToneAnalysis::amplitudeAt(std::span(out.right).subspan(4800, 38400), 48000, 1000) > 0.4);
        const QStringList lines = log.lines(u"DualRecorder"_s);
        QCOMPARE(lines.mid(lines.indexOf(u"stop()"_s)),
            (QStringList { u"stop()"_s, u"Dual recording stopped, starting mixing..."_s, u"cancel()"_s,
                u"Audio mixing completed successfully"_s,
                u"Stop completed, file ready at: "_s + m_recorder->finalMixedPath() }));
    }

    // The session may drop its recorder while a stop is pending: the mix still finishes.
    void releasedDuringStop()
    {
        QVERIFY(!m_recorder->start());
        QCoro::Task<> stopping = m_recorder->stop();
        const QString output = m_recorder->finalMixedPath();
        m_recorder.reset();
        QCoro::waitFor(stopping);
        QVERIFY(QFileInfo(output).size() > 0);
    }

    // A mix that fails while following (its output removed) is logged once, and stop()
    // mixes the finished files instead.
    void failedLiveMixFallsBack()
    {
        LogCapture log;
        QVERIFY(!m_recorder->start());
        QTRY_VERIFY(QFileInfo::exists(m_recorder->finalMixedPath()));
        QVERIFY(QFile::remove(m_recorder->finalMixedPath()));
        QCoro::waitFor(m_recorder->stop());
        QVERIFY(m_recorder->logs().endsWith(u"=== MIXING COMPLETED SUCCESSFULLY ===\n"_s));
        QCOMPARE(files(), QStringList { named("_mixed.m4a") });
        QCOMPARE(log.lines(u"AudioMixer"_s).filter(u"Live mixing stopped"_s).size(), 1);
    }

    // A mix that fails (the output cannot be written) keeps both captures and says why;
    // the next stop() mixes again.
    void failedMixKeepsTheCaptures()
    {
        LogCapture log;
        QVERIFY(!m_recorder->start());
        QVERIFY(QDir().mkdir(m_recorder->finalMixedPath()));
        QCoro::waitFor(m_recorder->stop());
        QCOMPARE(m_recorder->mixFailure(), u"Could not start AVAssetWriter"_s);
        QCOMPARE(files(), (QStringList { named("_microphone.wav"), named("_system.wav") }));
        QVERIFY(
            log.lines(u"DualRecorder"_s).contains(u"Audio mixing failed: Could not start AVAssetWriter"_s));
        QVERIFY(QDir().rmdir(m_recorder->finalMixedPath()));
        QCoro::waitFor(m_recorder->stop());
        QCOMPARE(m_recorder->mixFailure(), std::nullopt);
        QCOMPARE(files(), QStringList { named("_mixed.m4a") });
    }

    // A file that stops taking audio (a size limit standing in for a full disk) is
    // reported; close() keeps what both files hold, and stop() mixes that part.
    void writeFailureKeepsThePart()
    {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit saved {};
        QCOMPARE(::getrlimit(RLIMIT_FSIZE, &saved), 0);
        QVERIFY(!m_recorder->start());
        QTRY_VERIFY(QFileInfo(m_recorder->systemAudioPath()).size() >= 48000 * 8);
        rlimit limited = saved;
        limited.rlim_cur = 200000; // past the system file, not yet the microphone's
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &limited), 0);
        m_fake->deliver(speakers, 48000);
        m_fake->deliver(mic, 48000);
        QTRY_COMPARE(m_recorder->writeFailure(), WriteFailure::fileTooLarge);
        m_recorder->close();
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &saved), 0);
        QCoro::waitFor(m_recorder->stop());
        QVERIFY(std::abs(MixerAnalysis::decode(m_recorder->finalMixedPath()).duration - 2.0) < 0.05);
    }
};

QTEST_GUILESS_MAIN(MixerDualRecorder)
#include "tst_mixer_dualrecorder.moc"
