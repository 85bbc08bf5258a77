#include "audio/GlobalTap.h"
#include "audio/MicRecorder.h"
#include "audio/MicrophonePermission.h"
#include "audio/SystemAudioPermission.h"
#include "audio/SystemRecorder.h"
#include "audio/pulse/PulseAlertSound.h"
#include "audio/pulse/PulseSoundServer.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"
#include "support/ToneAnalysis.h"
#include "support/TonePlayer.h"

#include <QElapsedTimer>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

using namespace Qt::StringLiterals;

namespace {

// An idle monitor of the fixture's null sinks starts delivering only once its latency
// has come down (the wait is silence in the file): tones start once it has.
bool waitForFirstAudio(const SourceRecorder &recorder)
{
    return QTest::qWaitFor([&] { return recorder.statistics().framesBeforeFirstBlock > 0; }, 5000);
}

} // namespace

// Capture and its permissions against the private sound server. The last test unloads
// every device of the fixture.
class AudioCapture : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(!qEnvironmentVariableIsEmpty("PULSE_SERVER"), "runs under scripts/fixtures/with-pulse");
    }

    // What a recording's start plays reaches the speakers: soft, but clearly there.
    void alertSoundPlaysOnTheSpeakers()
    {
        PulseSoundServer server;
        const QString path = m_dir.filePath(u"alert_system.wav"_s);
        SystemRecorder speakers(path, server);
        QVERIFY(!speakers.start() && waitForFirstAudio(speakers));
        PulseAlertSound().play();
        QTest::qWait(150);
        speakers.stop();
        const SoundFile file = SoundFile::read(path);
        const std::vector<float> left = file.channelSpan(0, 0, file.seconds());
        QCOMPARE(ToneAnalysis::dominantFrequency(left, file.rate), 880.0);
        const double peak = *std::max_element(left.begin(), left.end());
        QVERIFY2(peak > 0.05 && peak < 0.15, qPrintable(QString::number(peak)));
        LogCapture log;
        PulseAlertSound("unix:/nonexistent/selvaro-test-socket").play();
        QVERIFY(log.contains(u"No alert sound: "_s));
    }

    // Both tracks follow the clock on a real server, whatever the devices run at and
    // whatever they send (an idle output sends nothing for a while, a suspended sink
    // nothing at all): both files 48000 Hz (system stereo, microphone mono) with the tones
    // at their pitch, a tone where it was played, each file as long as the recorded time,
    // and a level raised by its own source only. Where a block goes is audio_timeline's.
    void tracksFollowTheClock_data()
    {
        QTest::addColumn<int>("rate"); // of the devices; 0: the fixture's own
        QTest::addColumn<int>("channels");
        QTest::addColumn<int>("quietMs"); // before the tones
        QTest::addColumn<QList<int>>("played"); // the tracks whose tone plays
        QTest::addColumn<int>("stallMs"); // the output suspended after a second of tone
        QTest::newRow("idle output, then a tone") << 0 << 2 << 10000 << QList { 0, 1 } << 0;
        QTest::newRow("speakers only") << 0 << 2 << 0 << QList { 0 } << 0;
        QTest::newRow("a stalled sink") << 0 << 2 << 500 << QList { 0, 1 } << 1000;
        QTest::newRow("44.1 kHz stereo devices") << 44100 << 2 << 0 << QList { 0, 1 } << 0;
        QTest::newRow("16 kHz mono headset") << 16000 << 1 << 0 << QList { 0, 1 } << 0;
    }
    void tracksFollowTheClock()
    {
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(int, quietMs);
        QFETCH(QList<int>, played);
        QFETCH(int, stallMs);
        // An output, and a feed whose monitor is the microphone, in the row's format.
        QByteArray sinks[] { "speakers", "micfeed" };
        QStringList modules;
        const auto restore = qScopeGuard([&] {
            pactl({ u"set-default-sink"_s, u"speakers"_s });
            pactl({ u"set-default-source"_s, u"mic"_s });
            for (const QString &module : modules)
                pactl({ u"unload-module"_s, module });
        });
        for (int track : { 0, 1 }) {
            if (!rate)
                break;
            sinks[track] = (track ? "feed" : "output") + QByteArray::number(rate);
            modules << pactl(
                { u"load-module"_s, u"module-null-sink"_s, u"sink_name="_s + QLatin1StringView(sinks[track]),
                    u"rate=%1"_s.arg(rate), u"channels=%1"_s.arg(channels) });
            bool ok = false;
            pactl({ track ? u"set-default-source"_s : u"set-default-sink"_s,
                      QLatin1StringView(sinks[track] + (track ? ".monitor" : "")) },
                &ok);
            QVERIFY(ok);
        }
        // Devices in another format play before the capture starts: an idle sink would
        // take the capture's rate instead.
        std::vector<std::unique_ptr<TonePlayer>> tones;
        const auto play = [&] {
            for (int track : played)
                tones.push_back(
                    std::make_unique<TonePlayer>(track ? 1000 : 440, sinks[track], rate ? rate : 48000));
        };
        if (rate)
            play();
        PulseSoundServer server;
        const QString paths[] { m_dir.filePath(u"clock_system.wav"_s),
            m_dir.filePath(u"clock_microphone.wav"_s) };
        SystemRecorder system(paths[0], server);
        MicRecorder microphone(paths[1], server);
        QElapsedTimer recorded;
        recorded.start();
        const auto pressed = std::chrono::steady_clock::now();
        QVERIFY(!microphone.start(pressed) && !system.start(pressed));
        QVERIFY(waitForFirstAudio(system) && waitForFirstAudio(microphone));
        QTest::qWait(std::max(0, quietMs - static_cast<int>(recorded.elapsed())));
        const auto now = [&recorded] { return static_cast<double>(recorded.nsecsElapsed()) / 1e9; };
        const double toneAt = now();
        if (!rate)
            play();
        // Connecting the player takes a time of its own, longest under ThreadSanitizer.
        const double playingAt = now();
        QTest::qWait(1000);
        const float levels[] { system.takeLevel(), microphone.takeLevel() };
        bool ok = true;
        if (stallMs) {
            pactl({ u"suspend-sink"_s, u"speakers"_s, u"1"_s }, &ok);
            QTest::qWait(stallMs);
            pactl({ u"suspend-sink"_s, u"speakers"_s, u"0"_s }, &ok);
            QTest::qWait(1000);
        }
        // The last tone (the microphone's when it plays) ends first: what PipeWire's
        // loopback still holds is read here rather than by the next row.
        tones.back()->stop();
        QTest::qWait(300);
        microphone.stop();
        system.stop();
        const double seconds = now();
        QVERIFY(ok);
        if (rate)
            QCOMPARE(
                pactl({ u"list"_s, u"sinks"_s, u"short"_s }).count(u"%1ch %2Hz"_s.arg(channels).arg(rate)),
                2);

        for (int track : { 0, 1 }) {
            const SoundFile file = SoundFile::read(paths[track]);
            const QString where
                = u"track %1: file %2 s, recorded %3 s, "_s.arg(track).arg(file.seconds()).arg(seconds);
            QCOMPARE(QList<int>({ file.rate, file.channels }), QList<int>({ 48000, track ? 1 : 2 }));
            QVERIFY2(std::abs(file.seconds() - seconds) < 0.05, qPrintable(where));
            QVERIFY2(played.contains(track) ? levels[track] > 0.3 : levels[track] == 0,
                qPrintable(where + QString::number(levels[track])));
            if (!played.contains(track))
                continue;
            // A block lost on a loaded machine can move the peak by a hertz; a wrong rate by 40 or more.
            for (int channel = 0; channel < file.channels; ++channel) {
                const double heard
                    = ToneAnalysis::dominantFrequency(file.channelSpan(channel, 0, file.seconds()), 48000);
                QVERIFY2(
                    std::abs(heard - (track ? 1000 : 440)) <= 2, qPrintable(where + QString::number(heard)));
            }
            if (rate)
                continue; // its tones play from before the start
            // The tone players ask for a 50 ms buffer: a tone plays up to that late.
            double heard = 0;
            while (
                heard + 0.01 <= file.seconds() && ToneAnalysis::rms(file.channelSpan(0, heard, 0.01)) <= 0.1)
                heard += 0.002;
            QVERIFY2(heard > toneAt - 0.05 && heard < playingAt + 0.1,
                qPrintable(
                    where + u"tone at %1 s, played at %2–%3 s"_s.arg(heard).arg(toneAt).arg(playingAt)));
        }
    }

    // A headset that becomes the default, switches profile (its output removed, one at a
    // call's 16 kHz mono added and made the default) and then disappears: the capture
    // follows each new default, its tone on again within 1 s of the switch, then falls
    // back to the speakers, and never records the microphone, where the server would
    // move a plain stream. Between the two profiles both servers fall back to the
    // speakers (PipeWire without one names a placeholder, and the capture waits for the
    // next default); PipeWire names a new sink a moment after its module loaded, and
    // making it the default fails until then. It comes after
    // the tests that read the microphone: on PipeWire the fixture's "mic" (a loopback)
    // keeps what was played into micfeed while nobody recorded it and hands it to the
    // next reader.
    void followsTheDefaultSink()
    {
        bool ok = false;
        const QString module = pactl(
            { u"load-module"_s, u"module-null-sink"_s, u"sink_name=headset"_s, u"rate=44100"_s }, &ok);
        QVERIFY(ok);
        TonePlayer speakers(440, "speakers");
        TonePlayer headset(660, "headset");
        TonePlayer microphone(1000, "micfeed");
        PulseSoundServer server;
        const QString path = m_dir.filePath(u"follow_system.wav"_s);
        SystemRecorder recorder(path, server);
        QVERIFY(!recorder.start() && waitForFirstAudio(recorder));
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
        pactl({ u"set-default-sink"_s, u"headset"_s }, &ok);
        QVERIFY(ok && waitForAudio());
        headset.stop(); // else the server moves the tone along to the speakers
        const double switchedAt = static_cast<double>(recorder.statistics().framesDelivered) / 48000;
        pactl({ u"unload-module"_s, module }, &ok);
        const QString call = pactl(
            { u"load-module"_s, u"module-null-sink"_s, u"sink_name=headset_hfp rate=16000 channels=1"_s });
        const auto named = [&ok] { return pactl({ u"set-default-sink"_s, u"headset_hfp"_s }, &ok), ok; };
        QVERIFY(ok && QTest::qWaitFor(named, 1000));
        TonePlayer callTone(660, "headset_hfp", 16000);
        QVERIFY(waitForAudio() && waitForAudio());
        callTone.stop();
        pactl({ u"unload-module"_s, call }, &ok);
        QVERIFY(ok && waitForAudio());
        recorder.stop();

        const SoundFile file = SoundFile::read(path);
        QCOMPARE(file.rate, 48000); // the format read at start holds throughout
        // A monitor starts late after a switch: the order of the tones, not their times.
        QStringList heard;
        // While the headset is the default the server may move the speakers' tone along to
        // it: the headset's tone is what marks its monitor, whatever else plays there.
        const auto plays = [&file](double t, double frequency) {
            return ToneAnalysis::amplitudeAt(file.channelSpan(0, t, 0.2), file.rate, frequency) > 0.2;
        };
        for (double t = 0; t + 0.2 <= file.seconds(); t += 0.1) {
            const QString name = plays(t, 660) ? u"headset"_s : plays(t, 440) ? u"speakers"_s : QString();
            if (!name.isEmpty() && (heard.isEmpty() || heard.last() != name))
                heard.append(name);
        }
        QVERIFY2(heard.size() >= 3 && heard.first() == u"speakers"_s && heard.contains(u"headset"_s)
                && heard.last() == u"speakers"_s,
            qPrintable(heard.join(u' ')));
        QVERIFY2(plays(switchedAt + 0.8, 660), qPrintable(QString::number(switchedAt)));
        const auto all = file.channelSpan(0, 0, file.seconds());
        QVERIFY(ToneAnalysis::energyAt(all, file.rate, 1000)
            < ToneAnalysis::energyAt(all, file.rate, 440) / 1000);
    }

    // The microphone follows the default input: a headset's input made the default,
    // then every input removed (silence and deviceMissing(), where the server would
    // move the stream to a monitor), then one brought back. Each tone lands where it
    // was heard: a switch within a second, the loss at once (PipeWire's loopback, the
    // fixture's input, still hands over what it held: up to 200 ms). It leaves the
    // headset's input as the default for the permissions, which unload every device.
    // The headset's input is a remap of the speakers' monitor, where its tone plays.
    void microphoneFollowsTheDefaultInput()
    {
        // What is done, what the microphone hears from then on, and how late it may start.
        const QString input = u"load-module module-remap-source source_name=%1 master=speakers.monitor;"
                              u"set-default-source %1"_s;
        const QList<std::tuple<QString, QString, double>> steps { { {}, u"voice"_s, 0 },
            { input.arg(u"headset"_s), u"headset"_s, 1 },
            { u"unload-module module-remap-source"_s, u"silence"_s, 0.2 },
            { input.arg(u"handset"_s), u"headset"_s, 1 } };
        TonePlayer voice(1000, "micfeed");
        TonePlayer headset(660, "speakers");
        PulseSoundServer server;
        const QString path = m_dir.filePath(u"inputs_microphone.wav"_s);
        MicRecorder microphone(path, server);
        const auto origin = std::chrono::steady_clock::now();
        QVERIFY(!microphone.start(origin) && waitForFirstAudio(microphone));
        QList<double> at;
        for (const auto &[commands, part, late] : steps) {
            at << std::chrono::duration<double>(std::chrono::steady_clock::now() - origin).count();
            // PipeWire names a new source a moment after its module loads: until then
            // making it the default fails.
            for (const QString &command : commands.split(u';', Qt::SkipEmptyParts))
                QVERIFY(QTest::qWaitFor(
                    [&command] {
                        bool ok = false;
                        pactl(command.split(u' '), &ok);
                        return ok;
                    },
                    1000));
            // Failing, it says which input the server holds for the default.
            QVERIFY2(
                QTest::qWaitFor([&] { return microphone.deviceMissing() == (part == u"silence"_s); }, 1000),
                qPrintable(pactl({ u"get-default-source"_s })));
            QTest::qWait(1500);
        }
        microphone.stop();

        // What each 50 ms after the first block holds, a part where it changes: half a
        // second of digital silence, or a tone (a window across a switch holds neither).
        const SoundFile file = SoundFile::read(path);
        QStringList parts;
        QList<double> starts;
        for (double t = static_cast<double>(microphone.statistics().framesBeforeFirstBlock) / 48000;
             t + 0.05 <= file.seconds(); t += 0.05) {
            const auto window = file.channelSpan(0, t, 0.05);
            const QString part = ToneAnalysis::rms(file.channelSpan(0, t, 0.5)) == 0 ? u"silence"_s
                : ToneAnalysis::amplitudeAt(window, 48000, 1000) > 0.2               ? u"voice"_s
                : ToneAnalysis::amplitudeAt(window, 48000, 660) > 0.2                ? u"headset"_s
                                                                                     : QString();
            if (!part.isEmpty() && (parts.isEmpty() || parts.last() != part))
                std::tie(parts.emplace_back(part), starts.emplace_back(t));
        }
        QCOMPARE(parts, QStringList({ u"voice"_s, u"headset"_s, u"silence"_s, u"headset"_s }));
        for (qsizetype step = 1; step < steps.size(); ++step)
            QVERIFY2(starts[step] > at[step] - 0.05 && starts[step] < at[step] + std::get<2>(steps[step]),
                qPrintable(u"step %1 at %2 s, heard at %3 s"_s.arg(step).arg(at[step]).arg(starts[step])));
    }

    // The permissions as probes: granted where capture works, unknown with no server,
    // denied with no devices (the last row: it unloads them), each answered on the main
    // thread, no stream left open; and the tap's error from the server.
    void permissions_data()
    {
        QTest::addColumn<QByteArray>("address");
        QTest::addColumn<Permission>("status");
        QTest::addColumn<QString>("tapError");
        QTest::newRow("fixture") << QByteArray() << Permission::granted << QString();
        QTest::newRow("no server") << QByteArray("unix:/nonexistent/selvaro-test-socket")
                                   << Permission::unknown << u"Error reading data for default sink: "_s;
        QTest::newRow("no devices") << QByteArray() << Permission::denied
                                    << u"Error reading data for default sink: No such entity"_s;
    }

    void permissions()
    {
        QFETCH(QByteArray, address);
        QFETCH(Permission, status);
        QFETCH(QString, tapError);
        if (status == Permission::denied)
            QVERIFY(unloadAllDevices());
        PulseSoundServer server(address);
        SystemAudioPermission system(server);
        MicrophonePermission microphone(server);
        QCOMPARE(system.status(), Permission::unknown); // the answer arrives later, on this thread
        bool onMainThread = false;
        connect(&system, &CapturePermission::requestFinished, this,
            [&] { onMainThread = QThread::currentThread() == thread(); });
        QSignalSpy finished(&system, &CapturePermission::requestFinished);
        system.request();
        QTRY_COMPARE(finished.count(), 1);
        QVERIFY(onMainThread);
        QCOMPARE(finished.at(0).at(0).toBool(), status == Permission::granted);
        QCOMPARE(system.status(), status);
        QTRY_COMPARE(microphone.status(), status);
        // A probe closes what it opened: nothing of ours holds an input or a monitor
        // (a headset would stay in its call profile).
        QTRY_VERIFY(
            !pactl({ u"list"_s, u"source-outputs"_s })
                 .contains(u"application.process.id = \"%1\""_s.arg(QCoreApplication::applicationPid())));
        GlobalTap tap(server);
        tap.activate();
        QVERIFY2(tapError.isEmpty() ? tap.errorMessage().isEmpty() : tap.errorMessage().startsWith(tapError),
            qPrintable(tap.errorMessage()));
    }
};

QTEST_GUILESS_MAIN(AudioCapture)
#include "tst_audio_capture.moc"
