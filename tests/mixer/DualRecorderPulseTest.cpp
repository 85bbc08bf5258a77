#include "audio/DualRecorder.h"
#include "audio/pulse/PulseAlertSound.h"
#include "audio/pulse/PulseSoundServer.h"
#include "audio/SystemRecorder.h"
#include "support/CaptureChecks.h"
#include "support/LogCapture.h"
#include "support/MixerAnalysis.h"
#include "support/SoundFile.h"
#include "support/ToneAnalysis.h"
#include "support/TonePlayer.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <span>

namespace {

// Seconds [from, to) of one decoded channel.
std::span<const float> seconds(const std::vector<float> &samples, double from, double to)
{
    const auto first = std::min(samples.size(), static_cast<size_t>(from * 48000));
    const auto last = std::min(samples.size(), static_cast<size_t>(to * 48000));
    return std::span<const float>(samples).subspan(first, last > first ? last - first : 0);
}

// Both captures write: an idle monitor of the fixture's null sinks starts delivering
// only once its latency has come down, so recorded time counts from here.
bool waitForBothCaptures(const DualRecorder &recorder)
{
    constexpr qint64 someAudio = 44 + 4800; // 50 ms of the 16-bit mono microphone past the header
    return QTest::qWaitFor(
        [&] {
            return QFileInfo(recorder.microphonePath()).size() > someAudio
                && QFileInfo(recorder.systemAudioPath()).size() > someAudio;
        },
        5000);
}

} // namespace

// The whole way from the private sound server to the uploaded file: the default sink
// "speakers" plays 440 Hz, the microphone feed 1000 Hz; the mixed M4A must carry the
// first on its left channel and the second on its right, with the pause left out.
class DualRecorderPulseTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(!qEnvironmentVariableIsEmpty("PULSE_SERVER"), "runs under scripts/fixtures/with-pulse");
    }

    void recordsSpeakersLeftAndMicrophoneRight()
    {
        TonePlayer speakers(440);
        TonePlayer microphone(1000, "micfeed");
        QVERIFY(speakers.isPlaying() && microphone.isPlaying());
        PulseSoundServer server;
        LogCapture log;
        DualRecorder recorder(m_dir.path(), server, std::make_shared<PulseAlertSound>());

        QVERIFY(!recorder.start());
        QVERIFY(recorder.isRecording());
        QVERIFY(waitForBothCaptures(recorder));
        QElapsedTimer running;
        running.start();
        QTest::qWait(800);
        recorder.pause();
        qint64 recorded = running.elapsed();
        QVERIFY(recorder.isPaused());
        QTest::qWait(500);
        recorder.resume();
        running.restart();
        QTest::qWait(700);
        QCoro::Task<> stopping = recorder.stop();
        recorded += running.elapsed();
        QCoro::waitFor(stopping);
        QVERIFY(!recorder.isRecording());
        QVERIFY(!recorder.isPaused());
        QVERIFY2(recorder.logs().endsWith(QStringLiteral("=== MIXING COMPLETED SUCCESSFULLY ===\n")),
                 qPrintable(recorder.logs()));
        QVERIFY(log.contains(QStringLiteral("Triggered system sound to activate GlobalTap")));
        QVERIFY(!log.contains(QStringLiteral("No alert sound")) && !log.contains(QStringLiteral("Alert sound failed")));

        const MixerAnalysis::Decoded out = MixerAnalysis::decode(recorder.finalMixedPath());
        QCOMPARE(out.error, QString());
        QCOMPARE(out.codec, QStringLiteral("aac"));
        QCOMPARE(out.sampleRate, 48000);
        QCOMPARE(out.channels, 2);
        // The paused half second is absent; a resumed source may take a moment to deliver.
        const double expected = static_cast<double>(recorded) / 1000;
        QVERIFY2(out.duration > expected - 0.25 && out.duration < expected + 0.15,
                 qPrintable(QStringLiteral("file %1 s, recorded %2 s\n").arg(out.duration).arg(expected) + recorder.logs()));

        const double end = out.duration - 0.1;
        const auto left = seconds(out.left, 0.5, end);
        const auto right = seconds(out.right, 0.5, end);
        QVERIFY(std::abs(ToneAnalysis::dominantFrequency(left, 48000) - 440) <= 2);
        QVERIFY(std::abs(ToneAnalysis::dominantFrequency(right, 48000) - 1000) <= 2);
        QVERIFY(ToneAnalysis::energyAt(left, 48000, 1000) < ToneAnalysis::energyAt(left, 48000, 440) / 100);
        QVERIFY(ToneAnalysis::energyAt(right, 48000, 440) < ToneAnalysis::energyAt(right, 48000, 1000) / 100);
    }

    // What start() plays reaches the speakers: recorded from their monitor once it delivers.
    void alertSoundPlaysOnTheSpeakers()
    {
        PulseSoundServer server;
        const QString path = m_dir.filePath(QStringLiteral("alert_system.wav"));
        SystemRecorder speakers(path, server);
        QVERIFY(!speakers.start());
        QVERIFY(waitForFirstAudio(speakers));
        LogCapture log;
        PulseAlertSound().play();
        QCOMPARE(log.lines(QStringLiteral("DualRecorder")), QStringList()); // no failure
        QTest::qWait(150);
        speakers.stop();

        const SoundFile file = SoundFile::read(path);
        QVERIFY2(file.ok, qPrintable(file.error));
        const std::vector<float> left = file.channelSpan(0, 0, file.seconds());
        QCOMPARE(ToneAnalysis::dominantFrequency(left, file.rate), 880.0);
        // Soft, but clearly there: a tenth of full scale at its peak.
        const double peak = *std::max_element(left.begin(), left.end());
        QVERIFY2(peak > 0.05 && peak < 0.15, qPrintable(QString::number(peak)));
    }

    void alertSoundWithoutServerOnlyLogs()
    {
        LogCapture log;
        PulseAlertSound("unix:/nonexistent/selvaro-test-socket").play();
        QVERIFY(log.contains(QStringLiteral("No alert sound: ")));
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(DualRecorderPulseTest)
#include "DualRecorderPulseTest.moc"
