#include "audio/DualRecorder.h"
#include "audio/pulse/PulseAlertSound.h"
#include "audio/pulse/PulseSoundServer.h"
#include "support/LogCapture.h"
#include "support/MixerAnalysis.h"
#include "support/ToneAnalysis.h"
#include "support/TonePlayer.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <span>

using namespace ToneAnalysis;

// The whole way from the private sound server to the uploaded file: the default sink
// "speakers" plays 440 Hz, the microphone feed 1000 Hz, and while paused 880 Hz and 660 Hz
// join them. The mixed M4A carries 440 Hz on its left channel and 1000 Hz on its right,
// and nothing of the pause; the mix followed the real captures all the way.
class MixerChain : public QObject
{
    Q_OBJECT

private slots:
    void recordsSpeakersLeftAndMicrophoneRight()
    {
        QVERIFY2(!qEnvironmentVariableIsEmpty("PULSE_SERVER"), "runs under scripts/fixtures/with-pulse");
        QTemporaryDir folder;
        TonePlayer speakers(440, "speakers");
        TonePlayer microphone(1000, "micfeed");
        PulseSoundServer server;
        LogCapture log;
        DualRecorder recorder(folder.path(), server, std::make_shared<PulseAlertSound>());
        QElapsedTimer running;
        running.start();
        QVERIFY(!recorder.start());
        // An idle monitor of the fixture's null sinks starts delivering only once its
        // latency has come down; the wait is silence at the start of its file.
        QVERIFY(QTest::qWaitFor(
            [&] {
                return QFileInfo(recorder.microphonePath()).size() > 4844
                    && QFileInfo(recorder.systemAudioPath()).size() > 4844;
            },
            5000));
        QTest::qWait(800);
        recorder.pause();
        qint64 recorded = running.elapsed();
        {
            TonePlayer pausedSpeakers(880, "speakers");
            TonePlayer pausedMicrophone(660, "micfeed");
            QTest::qWait(500);
        }
        QTest::qWait(150);
        recorder.resume();
        running.restart();
        QTest::qWait(700);
        recorder.pause();
        recorded += running.elapsed();
        QTest::qWait(200);
        QCoro::waitFor(recorder.stop()); // from the pause, as the screen saves
        QVERIFY2(recorder.logs().endsWith(QStringLiteral("=== MIXING COMPLETED SUCCESSFULLY ===\n")),
            qPrintable(recorder.logs()));
        QVERIFY(!log.contains(QStringLiteral("Live mixing stopped")));

        const MixerAnalysis::Decoded out = MixerAnalysis::decode(recorder.finalMixedPath());
        const double expected = static_cast<double>(recorded) / 1000;
        QVERIFY2(out.duration > expected - 0.25 && out.duration < expected + 0.15,
            qPrintable(QStringLiteral("file %1 s, recorded %2 s").arg(out.duration).arg(expected)));
        const auto left = std::span(out.left).subspan(24000, out.left.size() - 28800);
        const auto right = std::span(out.right).subspan(24000, out.right.size() - 28800);
        const auto strongest = [](std::span<const float> channel, double tone, QList<double> absent) {
            return std::all_of(absent.begin(), absent.end(), [&](double other) {
                return energyAt(channel, 48000, other) < energyAt(channel, 48000, tone) / 100;
            });
        };
        QVERIFY(strongest(left, 440, { 880, 1000, 660 }));
        QVERIFY(strongest(right, 1000, { 660, 440, 880 }));
    }
};

QTEST_GUILESS_MAIN(MixerChain)
#include "tst_mixer_chain.moc"
