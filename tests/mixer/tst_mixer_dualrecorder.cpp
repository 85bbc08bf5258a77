#include "audio/DualRecorder.h"
#include "support/FakeSoundServer.h"
#include "support/LogCapture.h"
#include "support/MixerAnalysis.h"
#include "support/ToneAnalysis.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThreadPool>

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

    std::unique_ptr<DualRecorder> makeRecorder()
    {
        return std::make_unique<DualRecorder>(m_dir->path(), *m_fake, m_sound);
    }
    [[nodiscard]] bool exists(const QString &path) const { return QFileInfo::exists(path); }

private slots:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_fake = std::make_unique<FakeSoundServer>();
        for (auto &[source, frequency] : { std::pair { speakers, 440.0 }, std::pair { mic, 1000.0 } }) {
            m_fake->sources[source].frequency = frequency;
            m_fake->sources[source].frames = 48000;
        }
        m_sound = std::make_shared<CountingAlertSound>();
    }
    void cleanup() { QThreadPool::globalInstance()->waitForDone(); }

    void namesThreeFilesFromOneStamp()
    {
        const double now = double(QDateTime::currentMSecsSinceEpoch()) / 1000;
        const auto first = makeRecorder();
        const auto second = makeRecorder();
        const QString stamp = QFileInfo(first->systemAudioPath()).fileName().chopped(11);
        QCOMPARE(
            first->systemAudioPath(), QDir(m_dir->path()).filePath(stamp + QStringLiteral("_system.wav")));
        QCOMPARE(
            first->microphonePath(), QDir(m_dir->path()).filePath(stamp + QStringLiteral("_microphone.wav")));
        QCOMPARE(first->finalMixedPath(), QDir(m_dir->path()).filePath(stamp + QStringLiteral("_mixed.m4a")));
        QVERIFY(stamp.contains(QLatin1Char('.')) && std::abs(stamp.toDouble() - now) < 5);
        QVERIFY(!second->systemAudioPath().contains(stamp));
        QVERIFY(QDir(m_dir->path()).isEmpty());
    }

    void startsMicrophoneThenSystemThenSound()
    {
        LogCapture log;
        const auto recorder = makeRecorder();
        QVERIFY(!recorder->start());
        QVERIFY(recorder->isRecording());
        QCOMPARE(m_fake->sources[mic].live + m_fake->sources[speakers].live, 2);
        QCOMPARE(m_fake->outputReads, 1); // the default output is read once per start
        QVERIFY(!recorder->start());
        QThreadPool::globalInstance()->waitForDone();
        QCOMPARE(m_sound->plays.load(), 1);
        QStringList lines = log.lines(QStringLiteral("DualRecorder"));
        const QString sound = QStringLiteral("Triggered system sound to activate GlobalTap");
        QVERIFY(lines.indexOf(sound) > lines.indexOf(QStringLiteral("System audio recording started")));
        lines.removeAll(sound);
        QCOMPARE(lines,
            (QStringList { u"start()"_s, u"Microphone recording started immediately"_s,
                u"System audio recording started"_s, u"Dual recording started"_s, u"start()"_s,
                u"start() while already recording"_s }));
        const QStringList all = log.lines();
        QVERIFY(all.indexOf(QRegularExpression(QStringLiteral(".*MicRecorder: start\\(\\)")))
            < all.indexOf(QRegularExpression(QStringLiteral(".*SystemRecorder: start\\(\\)"))));
    }

    // A failed system start leaves the microphone running for the caller to cancel.
    void failedStarts_data()
    {
        QTest::addColumn<bool>("refuseMicrophone");
        QTest::addColumn<QString>("error");
        QTest::addColumn<int>("microphonesLive");
        QTest::newRow("microphone") << true << QStringLiteral("Failed to start microphone recording") << 0;
        QTest::newRow("system") << false << QStringLiteral("Failed to start audio device: Access denied")
                                << 1;
    }

    void failedStarts()
    {
        QFETCH(bool, refuseMicrophone);
        QFETCH(QString, error);
        QFETCH(int, microphonesLive);
        m_fake->sources[refuseMicrophone ? mic : speakers].refuse = true;
        const auto recorder = makeRecorder();
        QCOMPARE(recorder->start().value_or(QString()), error);
        QVERIFY(!recorder->isRecording());
        QCOMPARE(m_fake->sources[mic].live, microphonesLive);
        QCOMPARE(m_fake->sources[speakers].live, 0);
        recorder->cancel();
        QCOMPARE(m_fake->sources[mic].live, 0);
        QVERIFY(QDir(m_dir->path()).isEmpty());
        QThreadPool::globalInstance()->waitForDone();
        QCOMPARE(m_sound->plays.load(), 0);
    }

    void guardsFollowTheState()
    {
        const auto recorder = makeRecorder();
        recorder->pause(); // before start: nothing
        QVERIFY(!recorder->isPaused());
        QVERIFY(!recorder->start());
        recorder->cancel(); // while recording: nothing
        QVERIFY(recorder->isRecording() && exists(recorder->microphonePath())
            && exists(recorder->systemAudioPath()));
        recorder->pause();
        QVERIFY(recorder->isPaused() && !recorder->isRecording());
        QVERIFY(m_fake->sources[mic].suspended);
        recorder->resume();
        QVERIFY(recorder->isRecording() && !m_fake->sources[mic].suspended);
        recorder->pause();
        LogCapture log;
        recorder->cancel(); // paused: both files deleted, nothing mixed
        QVERIFY(!recorder->isPaused() && !recorder->isRecording());
        QVERIFY(QDir(m_dir->path()).isEmpty());
        QVERIFY(
            log.lines(QStringLiteral("DualRecorder")).contains(QStringLiteral("Dual recording cancelled")));

        // resume() looks at "recording" only: a never-started recorder claims to record,
        // and its stop() mixes nothing and says why.
        const auto fresh = makeRecorder();
        fresh->resume();
        QVERIFY(fresh->isRecording());
        QCoro::waitFor(fresh->stop());
        QVERIFY(fresh->logs().endsWith(QStringLiteral("ERROR: One or both audio files missing\n")));
        QVERIFY(!exists(fresh->finalMixedPath()));
    }

    // From recording or from paused, stop() mixes without blocking, and once the mix is
    // there the two captures go. A paused recorder keeps the pause out of the mix.
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
        const auto recorder = makeRecorder();
        QVERIFY(!recorder->start());
        if (paused) {
            // The writer drops what it has not written by the pause.
            QTRY_VERIFY(QFileInfo(recorder->systemAudioPath()).size() >= 48000 * 8);
            recorder->pause();
            m_fake->deliver(speakers, 48000); // arrives while paused: dropped
            m_fake->deliver(mic, 48000); // a suspended stream sends nothing
        }
        QThreadPool::globalInstance()->waitForDone();
        QCoro::Task<> stopping = recorder->stop();
        QVERIFY(!stopping.isReady());
        QVERIFY(!recorder->isRecording() && !recorder->isPaused());
        recorder->cancel(); // a discard while the mixer reads the files: ignored
        QCoro::waitFor(stopping);
        QVERIFY(recorder->logs().startsWith(QStringLiteral("=== STARTING AUDIO MIXING ===\nTimestams, ")));
        QVERIFY(recorder->logs().endsWith(QStringLiteral("=== MIXING COMPLETED SUCCESSFULLY ===\n")));
        QVERIFY(!exists(recorder->systemAudioPath()) && !exists(recorder->microphonePath()));
        const MixerAnalysis::Decoded out = MixerAnalysis::decode(recorder->finalMixedPath());
        QVERIFY(std::abs(out.duration - 1.0) < 0.05);
        QVERIFY(ToneAnalysis::amplitudeAt(std::span(out.left).subspan(4800, 38400), 48000, 440) > 0.4);
        QVERIFY(ToneAnalysis::amplitudeAt(std::span(out.right).subspan(4800, 38400), 48000, 1000) > 0.4);
        const QStringList lines = log.lines(QStringLiteral("DualRecorder"));
        QCOMPARE(lines.mid(lines.indexOf(QStringLiteral("stop()"))),
            (QStringList { u"stop()"_s, u"Dual recording stopped, starting mixing..."_s, u"cancel()"_s,
                u"Audio mixing completed successfully"_s,
                u"Stop completed, file ready at: "_s + recorder->finalMixedPath() }));
    }

    // The session may drop its recorder while a stop is pending: the mix still finishes.
    void releasedDuringStop()
    {
        auto recorder = makeRecorder();
        const QString output = recorder->finalMixedPath();
        QVERIFY(!recorder->start());
        QCoro::Task<> stopping = recorder->stop();
        recorder.reset();
        QCoro::waitFor(stopping);
        QVERIFY(QFileInfo(output).size() > 0);
    }

    // A failed mix leaves no mixed file and keeps both captures for a look.
    void failedMixKeepsTheCaptures()
    {
        m_fake->sources[mic].frames = 0;
        LogCapture log;
        const auto recorder = makeRecorder();
        QVERIFY(!recorder->start());
        QCoro::waitFor(recorder->stop());
        QVERIFY(recorder->logs().endsWith(QStringLiteral("ERROR: One file is empty (not yet supported)\n")));
        QVERIFY(!exists(recorder->finalMixedPath()));
        QVERIFY(exists(recorder->systemAudioPath()) && exists(recorder->microphonePath()));
        QVERIFY(log.lines(QStringLiteral("DualRecorder"))
                    .contains(QStringLiteral("Audio mixing failed: Cannot mix with empty audio")));
    }
};

QTEST_GUILESS_MAIN(MixerDualRecorder)
#include "tst_mixer_dualrecorder.moc"
