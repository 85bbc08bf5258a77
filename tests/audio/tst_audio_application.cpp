#include "audio/ChosenSourceServer.h"
#include "audio/SystemRecorder.h"
#include "audio/pulse/PulseSoundServer.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"
#include "support/TaggedPlayer.h"
#include "support/ToneAnalysis.h"
#include "support/TonePlayer.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <numbers>

using namespace Qt::StringLiterals;

// One application's audio on the private sound server: only its streams reach the
// track, followed as they come, move and go, and the track stays on the clock.
class AudioApplication : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void followsTheChosenApplication()
    {
        bool ok = false;
        pactl({ u"load-module"_s, u"module-null-sink"_s, u"sink_name=headset"_s, u"rate=44100"_s }, &ok);
        QVERIFY(ok);
        QTemporaryDir dir;
        const QString path = dir.filePath(u"application.wav"_s);
        auto call = std::make_unique<TaggedPlayer>(u"Firefox"_s, u"firefox"_s, 1000, u"speakers"_s);
        const TaggedPlayer music(u"Music"_s, u"rhythmbox"_s, 3000, u"speakers"_s);
        // As our alert sound would, under the chosen binary (libpulse reads PULSE_PROP).
        qputenv("PULSE_PROP", "application.process.binary=firefox");
        const TonePlayer ours(440, "speakers");
        qunsetenv("PULSE_PROP");
        ChosenSourceServer server(std::make_shared<PulseSoundServer>());
        server.choose(u"firefox"_s);
        LogCapture log;
        SystemRecorder system(path, server);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!system.start());
        const auto seconds = [&clock] { return static_cast<double>(clock.elapsed()) / 1000; };

        // As any monitor of the fixture's idle null sinks, the first audio takes a moment.
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(u"First audio"_s), 5000);
        const double heardAt = seconds();
        QTest::qWait(1000);
        const double secondAt = seconds(); // a second stream of the application (another tab)
        auto tab = std::make_unique<TaggedPlayer>(u"Firefox"_s, u"firefox"_s, 2000, u"speakers"_s);
        // Picked up within 500 ms of its stream's start on the server, which a loaded
        // machine may take a while to reach after starting the player.
        const std::unique_ptr<StreamWatch> watch = server.watchStreams();
        QTRY_VERIFY(std::ranges::count_if(watch->streams(), [](const ClientStream &stream) {
            return stream.binary == u"firefox"_s && !stream.ours;
        }) == 2);
        const double tabAt = seconds();
        QTest::qWait(1000);
        tab.reset();
        const QString input
            = log.lines(u"ApplicationTap"_s).filter(u"Picked up stream"_s).value(0).section(u' ', 3, 3);
        const double movedAt = seconds();
        QVERIFY(pactl({ u"move-sink-input"_s, input, u"headset"_s }, &ok).isEmpty() && ok);
        QTest::qWait(2000);
        const double restartedAt = seconds(); // the application quits and comes back
        call = std::make_unique<TaggedPlayer>(u"Firefox"_s, u"firefox"_s, 1000, u"speakers"_s);
        QTest::qWait(2000);
        const double allAppsAt = seconds();
        server.choose({});
        QTest::qWait(1500);
        system.stop();
        const double recorded = seconds();

        const SoundFile file = SoundFile::read(path);
        QVERIFY2(file.error.isEmpty(), qPrintable(file.error));
        const auto amplitude = [&file](double from, double to, double frequency) {
            return ToneAnalysis::amplitudeAt(file.channelSpan(0, from, to - from), file.rate, frequency);
        };
        // Nothing of the other application nor of ours while one is chosen, in quarter
        // seconds through a Hann window (whose side lobes keep the chosen tone out of the
        // other's bin); the median, as a timeline's rare thinned frame clicks in one of them.
        std::vector<double> leaks;
        for (const auto &[from, to] :
            { std::pair(heardAt, secondAt), std::pair(restartedAt + 1.0, allAppsAt - 0.2) }) {
            for (double at = from; at + 0.25 <= to; at += 0.25) {
                std::vector<float> span = file.channelSpan(0, at, 0.25);
                for (size_t i = 0; i < span.size(); ++i)
                    span[i] *= static_cast<float>(
                        1 - std::cos(2 * std::numbers::pi * double(i) / double(span.size())));
                leaks.push_back(std::max(ToneAnalysis::amplitudeAt(span, file.rate, 3000),
                    ToneAnalysis::amplitudeAt(span, file.rate, 440)));
            }
        }
        std::ranges::nth_element(leaks, leaks.begin() + static_cast<qint64>(leaks.size() / 2));
        const double leak = leaks[leaks.size() / 2];
        QVERIFY2(20 * std::log10(leak + 1e-12) <= -90, qPrintable(u"leak %1"_s.arg(leak)));
        QVERIFY(amplitude(heardAt, secondAt, 1000) > 0.2);
        QVERIFY(amplitude(tabAt + 0.5, tabAt + 0.7, 2000) > 0.3);
        QVERIFY(amplitude(movedAt + 1.0, movedAt + 1.2, 1000) > 0.3); // back within 1 s of the move
        QVERIFY(amplitude(restartedAt + 1.0, allAppsAt, 1000) > 0.2);
        QVERIFY(amplitude(allAppsAt + 0.5, recorded - 0.1, 3000) > 0.1); // all apps: the music too
        QVERIFY2(std::abs(file.seconds() - recorded) <= 0.05,
            qPrintable(u"track %1 s, recorded %2 s"_s.arg(file.seconds()).arg(recorded)));
        for (const QString &line : { u"Picked up stream"_s, u"moved to output"_s, u"Lost stream"_s })
            QVERIFY2(log.contains(line + u' '), qPrintable(line));
    }
};

QTEST_GUILESS_MAIN(AudioApplication)
#include "tst_audio_application.moc"
