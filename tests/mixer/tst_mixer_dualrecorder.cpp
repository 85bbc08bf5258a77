#include "audio/AlertSound.h"
#include "audio/DualRecorder.h"
#include "audio/RecordingFiles.h"
#include "support/LogCapture.h"
#include "support/MixerAnalysis.h"
#include "support/StandInSoundServer.h"
#include "support/ToneAnalysis.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>
#include <QThreadPool>

using namespace Qt::StringLiterals;

constexpr auto mic = CaptureSource::defaultInput;
constexpr auto speakers = CaptureSource::systemOutput;

class StandInAlertSound final : public AlertSound
{
public:
    std::atomic<int> plays = 0;
    void play() override { ++plays; }
};

// The dual recorder's rules, over a sound server that hands each capture a second of
// its tone at start (440 Hz at half scale for the speakers, 1000 Hz at a quarter for
// the microphone).
class MixerDualRecorder : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<StandInSoundServer> m_server;
    std::shared_ptr<StandInAlertSound> m_sound;
    std::unique_ptr<DualRecorder> m_recorder;

    [[nodiscard]] QStringList files() const { return QDir(m_dir->path()).entryList(QDir::Files); }
    // The folder's files without the recording's STAMP.
    [[nodiscard]] QStringList kept() const { return files().replaceInStrings(named("_"), QString()); }
    [[nodiscard]] QString named(const char *suffix) const
    {
        return QFileInfo(m_recorder->systemAudioPath()).fileName().chopped(11) + QLatin1String(suffix);
    }

private slots:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_server = std::make_unique<StandInSoundServer>();
        m_server->sources[speakers] = { .frequency = 440, .amplitude = 0.5, .frames = 48000 };
        m_server->sources[mic] = { .frequency = 1000, .amplitude = 0.25, .frames = 48000 };
        m_sound = std::make_shared<StandInAlertSound>();
        m_recorder = std::make_unique<DualRecorder>(m_dir->path(), *m_server, m_sound);
    }
    void cleanup()
    {
        QThreadPool::globalInstance()->waitForDone();
        m_recorder.reset(); // before the server its engines capture from
    }

    void namesThreeFilesFromOneStamp()
    {
        const QString stamp = named("");
        QVERIFY(stamp.contains(u'.') && std::abs(stamp.toDouble() - QDateTime::currentSecsSinceEpoch()) < 5);
        const DualRecorder next(m_dir->path(), *m_server, m_sound);
        QVERIFY(RecordingFiles::ofMixed(next.finalMixedPath()).stamp() != stamp);
    }

    // Each call where it is allowed, on both sources. start() starts the microphone, then
    // system audio (its default output read once), then the alert sound; a refused source
    // fails the start in its own words, a failed system start leaving the microphone for
    // the caller to cancel. The meters read their own source; a pause corks the
    // microphone's stream (system audio is dropped by its writer); close() ends both
    // captures and keeps the files; a discard deletes every file of the recording unless
    // it runs; either file gone is the recording's failure.
    void callsFollowTheState_data()
    {
        QTest::addColumn<QString>("calls"); // "refuse-<source>": that source's capture is refused
        QTest::addColumn<QString>("state"); // "idle", "recording" or "paused"
        QTest::addColumn<bool>("capturing"); // both sources; else neither
        QTest::addColumn<QStringList>("kept");
        QTest::addColumn<QString>("error"); // of the last start()
        const QStringList all { u"microphone.wav"_s, u"mixed.m4a"_s, u"system.wav"_s };
        const auto row = [](const char *name, const QString &calls, const QString &state, bool capturing,
                             const QStringList &kept, const QString &error = {}) {
            QTest::newRow(name) << calls << state << capturing << kept << error;
        };
        row("pause before start", u"pause"_s, u"idle"_s, false, {});
        row("start twice", u"start start"_s, u"recording"_s, true, all);
        row("cancel while recording", u"start cancel"_s, u"recording"_s, true, all);
        row("paused", u"start pause"_s, u"paused"_s, true, all);
        row("resumed", u"start pause resume"_s, u"recording"_s, true, all);
        row("cancel when paused", u"start pause cancel"_s, u"idle"_s, false, {});
        row("closed", u"start close"_s, u"idle"_s, false, all);
        row("cancel when closed", u"start close cancel"_s, u"idle"_s, false, {});
        row("microphone file gone", u"start lose-microphone"_s, u"recording"_s, true, all.mid(1));
        row("system file gone", u"start lose-system"_s, u"recording"_s, true, all.mid(0, 2));
        row("microphone refused", u"refuse-microphone start"_s, u"idle"_s, false, {},
            u"Failed to start microphone recording"_s);
        row("system refused, then cancel", u"refuse-system start cancel"_s, u"idle"_s, false, {},
            u"Failed to start audio device: Access denied"_s);
        // Deliberately: resume() looks at "recording" only, so a never-started recorder claims to record.
        row("resume before start", u"resume"_s, u"recording"_s, false, {});
    }

    void callsFollowTheState()
    {
        QFETCH(QString, calls);
        QFETCH(QString, state);
        QFETCH(bool, capturing);
        QFETCH(QString, error);
        LogCapture log;
        for (const QString &call : calls.split(u' ')) {
            if (call == u"start"_s) {
                QCOMPARE(m_recorder->start().value_or(QString()), error);
                QTRY_VERIFY(
                    !error.isEmpty() || QFileInfo::exists(m_recorder->finalMixedPath())); // the mix follows
            } else if (call == u"pause"_s)
                m_recorder->pause();
            else if (call == u"resume"_s)
                m_recorder->resume();
            else if (call == u"close"_s)
                m_recorder->close();
            else if (call.startsWith(u"refuse"_s))
                m_server->sources[call.endsWith(u"system"_s) ? speakers : mic].refuse = true;
            else if (call.startsWith(u"lose"_s))
                QVERIFY(QFile::remove(call.endsWith(u"system"_s) ? m_recorder->systemAudioPath()
                                                                 : m_recorder->microphonePath()));
            else
                m_recorder->cancel();
        }
        const bool started = calls.contains(u"start"_s) && error.isEmpty();
        const bool micStarted = calls.contains(u"start"_s) && !calls.contains(u"refuse-microphone"_s);
        QCOMPARE(m_recorder->isRecording(), state == u"recording"_s);
        QCOMPARE(m_recorder->isPaused(), state == u"paused"_s);
        for (const CaptureSource source : { mic, speakers })
            QCOMPARE(m_server->sources[source].live, capturing ? 1 : 0);
        QCOMPARE(m_server->sources[mic].suspended, state == u"paused"_s);
        QTEST(kept(), "kept");
        QCOMPARE(m_recorder->writeFailure(),
            calls.contains(u"lose-"_s) ? std::optional(WriteFailure::fileRemoved) : std::nullopt);
        QCOMPARE(m_server->outputReads, micStarted ? 1 : 0);
        const QStringList startLines { u"Microphone recording started immediately"_s,
            u"System audio recording started"_s, u"Dual recording started"_s };
        QCOMPARE(
            log.lines(u"DualRecorder"_s).filter(u" started"_s), startLines.mid(0, started ? 3 : micStarted));
        QCOMPARE(log.lines(u"DualRecorder"_s).contains(u"start() while already recording"_s),
            calls.count(u"start"_s) > 1);
        QThreadPool::globalInstance()->waitForDone();
        QCOMPARE(m_sound->plays.load(), started ? 1 : 0);
        const auto [systemAudio, microphone, microphoneMissing] = m_recorder->takeLevels();
        QCOMPARE(QList({ qRound(systemAudio * 100), qRound(microphone * 100) }),
            QList({ started ? 50 : 0, micStarted ? 25 : 0 }));
    }

    // stop() mixes without blocking and ignores a discard meanwhile; once the mix is there
    // the two captures go. From the pause, what arrives in it stays out; after close() (a
    // file that failed, a quit) it mixes what both files hold. A mix that fails keeps both
    // captures and says why, and the next stop() mixes again.
    void stopMixes_data()
    {
        QTest::addColumn<QString>("before"); // what happens to the recording before stop()
        QTest::addColumn<double>("seconds"); // of the mix
        QTest::newRow("recording") << QString() << 3.0;
        QTest::newRow("paused") << u"pause"_s << 1.0;
        QTest::newRow("closed") << u"close"_s << 3.0;
        QTest::newRow("first mix fails") << u"block the mix"_s << 3.0;
    }

    void stopMixes()
    {
        QFETCH(QString, before);
        QFETCH(double, seconds);
        LogCapture log;
        // A folder in the output's place from before the start, so that the live mix cannot
        // have made the file first.
        QVERIFY(before != u"block the mix"_s || QDir().mkdir(m_recorder->finalMixedPath()));
        QVERIFY(!m_recorder->start());
        // The system writer drops what it has not written by the pause.
        QTRY_VERIFY(QFileInfo(m_recorder->systemAudioPath()).size() >= 48000 * 8);
        if (before == u"pause"_s)
            m_recorder->pause();
        for (const CaptureSource source : { mic, speakers })
            m_server->deliver(source, 96000);
        if (before == u"close"_s) {
            m_recorder->close();
        } else if (before == u"block the mix"_s) {
            QCoro::waitFor(m_recorder->stop());
            QCOMPARE(m_recorder->mixFailure(), u"Could not start AVAssetWriter"_s);
            QCOMPARE(kept(), (QStringList { u"microphone.wav"_s, u"system.wav"_s }));
            QVERIFY(log.lines(u"DualRecorder"_s)
                        .contains(u"Audio mixing failed: Could not start AVAssetWriter"_s));
            QVERIFY(QDir().rmdir(m_recorder->finalMixedPath()));
        }
        QThreadPool::globalInstance()->waitForDone();
        QCoro::Task<> stopping = m_recorder->stop();
        QVERIFY(!stopping.isReady() && !m_recorder->isRecording() && !m_recorder->isPaused());
        m_recorder->cancel();
        QCoro::waitFor(stopping);
        QCOMPARE(m_recorder->mixFailure(), std::nullopt);
        QVERIFY(m_recorder->logs().endsWith(u"=== MIXING COMPLETED SUCCESSFULLY ===\n"_s));
        QCOMPARE(kept(), QStringList { u"mixed.m4a"_s });
        const MixerAnalysis::Decoded out = MixerAnalysis::decode(m_recorder->finalMixedPath());
        QVERIFY2(std::abs(out.duration - seconds) < 0.05, qPrintable(QString::number(out.duration)));
        QVERIFY(ToneAnalysis::amplitudeAt(std::span(out.left).subspan(4800, 38400), 48000, 440) > 0.4);
        QVERIFY(ToneAnalysis::amplitudeAt(std::span(out.right).subspan(4800, 38400), 48000, 1000) > 0.2);
        const QStringList lines = log.lines(u"DualRecorder"_s);
        QCOMPARE(lines.mid(lines.lastIndexOf(u"stop()"_s)),
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
};

QTEST_GUILESS_MAIN(MixerDualRecorder)
#include "tst_mixer_dualrecorder.moc"
