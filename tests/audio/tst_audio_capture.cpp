#include "audio/MicRecorder.h"
#include "audio/SystemRecorder.h"
#include "audio/pulse/PulseAlertSound.h"
#include "audio/pulse/PulseSoundServer.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"
#include "support/ToneAnalysis.h"
#include "support/TonePlayer.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sndfile.h>

using namespace ToneAnalysis;

namespace {

// An idle monitor of the fixture's null sinks starts delivering only once its latency
// has come down: recorded time counts from the first block written.
bool waitForFirstAudio(const SourceRecorder &recorder)
{
    return QTest::qWaitFor([&] { return recorder.statistics().framesWritten > 0; }, 5000);
}

} // namespace

// Capture against the private sound server: the default sink "speakers" plays 440 Hz,
// the microphone feed 1000 Hz, and each recorder hears only its own.
class AudioCapture : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(!qEnvironmentVariableIsEmpty("PULSE_SERVER"), "runs under scripts/fixtures/with-pulse");
    }

    void recordsItsOwnSource_data()
    {
        QTest::addColumn<bool>("system");
        QTest::addColumn<int>("channels");
        QTest::addColumn<int>("subformat");
        QTest::addColumn<double>("heard");
        QTest::addColumn<double>("unheard");
        QTest::newRow("system audio") << true << 2 << int(SF_FORMAT_FLOAT) << 440.0 << 1000.0;
        QTest::newRow("microphone") << false << 1 << int(SF_FORMAT_PCM_16) << 1000.0 << 440.0;
    }

    void recordsItsOwnSource()
    {
        QFETCH(bool, system);
        QFETCH(int, channels);
        QFETCH(int, subformat);
        QFETCH(double, heard);
        QFETCH(double, unheard);
        TonePlayer speakers(440, "speakers");
        TonePlayer microphone(1000, "micfeed");
        PulseSoundServer server;
        const QString path
            = m_dir.filePath(QString::fromLatin1(QTest::currentDataTag()) + QStringLiteral(".wav"));
        std::unique_ptr<SourceRecorder> recorder;
        if (system)
            recorder = std::make_unique<SystemRecorder>(path, server);
        else
            recorder = std::make_unique<MicRecorder>(path, server);
        QVERIFY(!recorder->start());
        QVERIFY(waitForFirstAudio(*recorder));
        QElapsedTimer elapsed;
        elapsed.start();
        QTest::qWait(800);
        recorder->stop();
        const double recorded = static_cast<double>(elapsed.elapsed()) / 1000;

        const SoundFile file = SoundFile::read(path);
        QVERIFY2(file.error.isEmpty(), qPrintable(file.error));
        // Small files stay plain WAV (libsndfile names the extensible header WAVEX).
        QVERIFY((file.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_WAV
            || (file.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_WAVEX);
        QCOMPARE(file.format & SF_FORMAT_SUBMASK, subformat);
        QCOMPARE(file.rate, 48000);
        QCOMPARE(file.channels, channels);
        QVERIFY2(std::abs(file.seconds() - recorded) < 0.06,
            qPrintable(QStringLiteral("file %1 s, recorded %2 s").arg(file.seconds()).arg(recorded)));
        const auto samples = file.channelSpan(channels - 1, 0.1, 0.5);
        QCOMPARE(dominantFrequency(samples, file.rate), heard);
        QVERIFY(energyAt(samples, file.rate, unheard) < energyAt(samples, file.rate, heard) / 1000);
    }

    // A headset that becomes the default and then disappears (a profile switch): the
    // capture follows the new default, then falls back to the speakers, and never
    // records the microphone, where the server would move a plain stream.
    void followsTheDefaultSink()
    {
        bool ok = false;
        const QString module = pactl({ QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                                         QStringLiteral("sink_name=headset"), QStringLiteral("rate=44100") },
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
        // A newly followed monitor starts late, later still on a loaded machine: stay on
        // each sink until it has delivered a good part of a second.
        const auto waitForAudio = [&recorder] {
            const auto heard = [&recorder] {
                return recorder.statistics().framesDelivered - recorder.statistics().framesOfSilence;
            };
            const quint64 from = heard();
            return QTest::qWaitFor([&] { return heard() >= from + 38400; }, 8000);
        };
        pactl({ QStringLiteral("set-default-sink"), QStringLiteral("headset") }, &ok);
        QVERIFY(ok && waitForAudio());
        headset.stop(); // else the server moves the generator along to the speakers
        pactl({ QStringLiteral("unload-module"), module }, &ok);
        QVERIFY(ok && waitForAudio());
        recorder.stop();
        const double recorded = static_cast<double>(elapsed.elapsed()) / 1000;

        const SoundFile file = SoundFile::read(path);
        QCOMPARE(file.rate, 48000); // the format read at start holds throughout
        QStringList sequence;
        for (double t = 0; t + 0.2 <= file.seconds(); t += 0.1) {
            const QString name = file.toneAt(t, 0.2, 440) ? QStringLiteral("speakers")
                : file.toneAt(t, 0.2, 660)                ? QStringLiteral("headset")
                                                          : QString();
            if (!name.isEmpty() && (sequence.isEmpty() || sequence.last() != name))
                sequence.append(name);
        }
        // A sink's monitor starts late after a switch, so look for the order of the tones
        // rather than exact times.
        QVERIFY2(sequence.size() >= 3 && sequence.first() == QStringLiteral("speakers")
                && sequence.contains(QStringLiteral("headset"))
                && sequence.last() == QStringLiteral("speakers"),
            qPrintable(sequence.join(QLatin1Char(' '))));
        const auto all = file.channelSpan(0, 0, file.seconds());
        QVERIFY(energyAt(all, file.rate, 1000) < energyAt(all, file.rate, 440) / 1000);
        // Silence fills the switches, so the timeline matches the clock.
        QVERIFY2(std::abs(file.seconds() - recorded) < 0.3,
            qPrintable(QStringLiteral("file %1 s, recorded %2 s").arg(file.seconds()).arg(recorded)));
        QVERIFY(log.contains(QStringLiteral("Default output is now headset")));
    }

    // What a recording's start plays reaches the speakers: soft, but clearly there.
    void alertSoundPlaysOnTheSpeakers()
    {
        PulseSoundServer server;
        const QString path = m_dir.filePath(QStringLiteral("alert_system.wav"));
        SystemRecorder speakers(path, server);
        QVERIFY(!speakers.start());
        QVERIFY(waitForFirstAudio(speakers));
        PulseAlertSound().play();
        QTest::qWait(150);
        speakers.stop();
        const SoundFile file = SoundFile::read(path);
        const std::vector<float> left = file.channelSpan(0, 0, file.seconds());
        QCOMPARE(dominantFrequency(left, file.rate), 880.0);
        const double peak = *std::max_element(left.begin(), left.end());
        QVERIFY2(peak > 0.05 && peak < 0.15, qPrintable(QString::number(peak)));

        LogCapture log;
        PulseAlertSound("unix:/nonexistent/selvaro-test-socket").play();
        QVERIFY(log.contains(QStringLiteral("No alert sound: ")));
    }
};

QTEST_GUILESS_MAIN(AudioCapture)
#include "tst_audio_capture.moc"
