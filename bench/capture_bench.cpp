// Records system audio and the microphone from a private PulseAudio daemon while
// tones play at a call's latency (20 ms), the speakers falling idle for 10 s in the
// middle, with the live mixer following the two files as in a real recording, and
// reports the process's CPU use (capture, writers, levels read as the screen reads
// them, and mixing), whether any frame was lost between the server and the files, how
// long each source took to its first block, and how far a track ever was from the
// recorded time. Starts the daemon itself (through the test fixtures) unless it
// already runs under one.
//
//   build/bench/capture_bench [seconds] [--echo]     (default 60; --echo: the mix
//                                                    removes the speakers' echo)
//
// Then the same system audio twice more, a quarter of the time each: once from all apps,
// once from one application chosen ("meeting", three streams at 440, 550 and 660 Hz)
// while another ("music", 3000 Hz) plays beside it; a fourth stream of the meeting
// (880 Hz) starts a third of the way in, and the 440 Hz one moves to another output
// at two thirds.
//
// Last line: cpu_percent=<n> echo=<0|1> lost_frames=<n> mixed=<1 when the live mix finished>
// start_gap_system_ms=<n> start_gap_microphone_ms=<n> track_error_ms=<n> track_lag_ms=<n>
// all_apps_cpu_percent=<n> app_cpu_percent=<n> app_leak_db=<n> app_pickup_ms=<n> app_move_gap_ms=<n>
//
// all_apps_cpu_percent and app_cpu_percent: the process's CPU use while capturing the
// system audio alone, from all apps and from the one application. app_leak_db: the
// music's tone in the application's track (the median of quarter seconds, Hann window).
// app_pickup_ms: from starting the fourth stream to the end of the first 40 ms window
// holding its tone, the player's own start included (-1: never); 40 is as soon as it
// reads. app_move_gap_ms: for how long the moved stream's tone is below half its level
// (10 ms steps of 40 ms windows, so a gap of a few ms reads 10 or 20).
//
// The recorded time counts from the first start() (the microphone's) to the stop.
// track_error_ms: the largest difference between a file's length and the recorded
// time, or between the two files: what the mix lays side by side. track_lag_ms: the
// most a track ever was behind the clock while running, sampled every 40 ms: audio
// on its way, or a gap not yet long enough to be written as silence (100 ms).

#include "audio/ChosenSourceServer.h"
#include "audio/DualRecorderError.h"
#include "audio/LiveMixer.h"
#include "audio/MicRecorder.h"
#include "audio/SystemRecorder.h"
#include "audio/pulse/PulseSoundServer.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <qcoro/qcorotask.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <sndfile.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

double cpuSeconds()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

bool writeTone(const QString &path, double frequency, int seconds)
{
    SF_INFO info {};
    info.samplerate = 48000;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE *file = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    if (!file)
        return false;
    std::vector<float> samples(static_cast<std::size_t>(48000) * static_cast<std::size_t>(seconds));
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>(
            0.5 * std::sin(2 * std::numbers::pi * frequency * static_cast<double>(i) / 48000));
    sf_writef_float(file, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(file);
    return true;
}

// Runs this program again inside the fixtures that start a private daemon.
int underFixtures(int argc, char **argv)
{
    const QString fixtures = QDir(QCoreApplication::applicationDirPath())
                                 .absoluteFilePath(QStringLiteral("../../scripts/fixtures"));
    if (!QFileInfo::exists(fixtures + QStringLiteral("/with-pulse"))) {
        std::fprintf(stderr, "capture_bench: cannot find scripts/fixtures next to the build folder\n");
        return 1;
    }
    QStringList arguments { fixtures + QStringLiteral("/with-pulse"),
        QCoreApplication::applicationFilePath() };
    for (int i = 1; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(fixtures + QStringLiteral("/isolated"), arguments);
    process.waitForFinished(-1);
    return process.exitCode();
}

QCoro::Task<> finishCatching(QCoro::Task<> task, bool &ok)
{
    try {
        co_await std::move(task);
        ok = true;
    } catch (const DualRecorderError &error) {
        std::fprintf(stderr, "mix: %s\n", error.what());
    }
}

// The amplitude of a sine of `frequency` in `samples` (Goertzel), after a Hann window
// when asked, whose side lobes keep a strong tone out of another frequency's bin.
double amplitudeAt(std::vector<float> samples, double frequency, bool hann)
{
    const auto n = static_cast<double>(samples.size());
    const double coefficient = 2 * std::cos(2 * std::numbers::pi * frequency / 48000);
    double previous = 0, beforePrevious = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double window = hann ? 1 - std::cos(2 * std::numbers::pi * static_cast<double>(i) / n) : 1;
        const double current = samples[i] * window + coefficient * previous - beforePrevious;
        beforePrevious = previous;
        previous = current;
    }
    const double power
        = previous * previous + beforePrevious * beforePrevious - coefficient * previous * beforePrevious;
    return 2 * std::sqrt(std::max(power, 0.0)) / n;
}

// The left channel of a stereo float WAV.
std::vector<float> leftChannel(const QString &path)
{
    SF_INFO info {};
    SNDFILE *file = sf_open(QFile::encodeName(path).constData(), SFM_READ, &info);
    if (!file)
        return {};
    std::vector<float> frames(static_cast<std::size_t>(info.frames * info.channels));
    sf_readf_float(file, frames.data(), info.frames);
    sf_close(file);
    std::vector<float> left;
    for (std::size_t i = 0; i < frames.size(); i += static_cast<std::size_t>(info.channels))
        left.push_back(frames[i]);
    return left;
}

// The sink-input of a player, by its process id.
QString sinkInputOf(const QProcess &player)
{
    QProcess pactl;
    pactl.start(QStringLiteral("pactl"), { QStringLiteral("list"), QStringLiteral("sink-inputs") });
    pactl.waitForFinished();
    const QString id = QStringLiteral("application.process.id = \"%1\"").arg(player.processId());
    for (const QString &block :
        QString::fromUtf8(pactl.readAllStandardOutput()).split(QStringLiteral("Sink Input #"))) {
        if (block.contains(id))
            return block.section(u'\n', 0, 0).trimmed();
    }
    return {};
}

struct ApplicationRun
{
    double cpuPercent = 0;
    double leakDb = 0;
    double pickupMs = 0;
    double moveGapMs = 0;
};

// System audio alone for `seconds`, from all apps (empty `binary`) or one application.
ApplicationRun recordSystemAudio(const QTemporaryDir &dir, const QString &binary, int seconds)
{
    const auto tone = [&dir](int frequency) { return dir.filePath(QStringLiteral("%1.wav").arg(frequency)); };
    const auto play = [&tone](QProcess &player, const char *program, int frequency) {
        player.start(QStringLiteral("paplay"),
            { QStringLiteral("--latency-msec=20"), QStringLiteral("--device=speakers"),
                QStringLiteral("--property=application.process.binary=") + QLatin1String(program),
                tone(frequency) });
        player.waitForStarted();
    };
    QProcess players[5];
    play(players[0], "meeting", 440);
    play(players[1], "meeting", 550);
    play(players[2], "meeting", 660);
    play(players[3], "music", 3000);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    ChosenSourceServer server(std::make_shared<PulseSoundServer>());
    server.choose(binary);
    const QString path = dir.filePath(QStringLiteral("application_%1.wav").arg(binary));
    ApplicationRun run;
    {
        SystemRecorder system(path, server);
        using Steady = std::chrono::steady_clock;
        const Steady::time_point started = Steady::now();
        if (auto error = system.start(started)) {
            std::fprintf(stderr, "system: %s\n", qPrintable(describe(*error)));
            return run;
        }
        const double cpuBefore = cpuSeconds();
        const auto since
            = [started] { return std::chrono::duration<double>(Steady::now() - started).count(); };
        double pickedAt = 0, movedAt = 0;
        while (since() < seconds) {
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
            (void)system.takeLevel(); // as the screen reads it
            if (pickedAt == 0 && since() >= seconds / 3.0) {
                pickedAt = since();
                play(players[4], "meeting", 880);
            }
            if (movedAt == 0 && since() >= seconds * 2 / 3.0) {
                QProcess::execute(QStringLiteral("pactl"),
                    { QStringLiteral("move-sink-input"), sinkInputOf(players[0]),
                        QStringLiteral("headset") });
                movedAt = since();
            }
        }
        system.stop();
        run.cpuPercent = 100 * (cpuSeconds() - cpuBefore) / since();
        const std::vector<float> left = leftChannel(path);
        const auto span = [&left](double from, double length) {
            const auto begin = std::min(left.size(), static_cast<std::size_t>(from * 48000));
            const auto end = std::min(left.size(), begin + static_cast<std::size_t>(length * 48000));
            return std::vector<float>(
                left.begin() + static_cast<qint64>(begin), left.begin() + static_cast<qint64>(end));
        };
        std::vector<double> leaks;
        for (double at = 1; at + 0.25 < pickedAt; at += 0.25)
            leaks.push_back(amplitudeAt(span(at, 0.25), 3000, true));
        std::ranges::nth_element(leaks, leaks.begin() + static_cast<qint64>(leaks.size() / 2));
        run.leakDb = leaks.empty() ? 0 : 20 * std::log10(leaks[leaks.size() / 2] + 1e-12);
        // In 10 ms steps, 40 ms Hann windows (the other tones stay out of the bin): the first
        // where the new tone is there, and how long the moved one is not. Summed, the
        // tones pass full scale, so the limiter holds each near an eighth once windowed.
        run.pickupMs = -1;
        for (double at = pickedAt; at < movedAt && run.pickupMs < 0; at += 0.01) {
            if (amplitudeAt(span(at, 0.04), 880, true) > 0.05)
                run.pickupMs = 1000 * (at + 0.04 - pickedAt);
        }
        const double before = amplitudeAt(span(movedAt - 0.5, 0.04), 440, true);
        for (double at = movedAt - 0.2; at < movedAt + 3; at += 0.01) {
            if (amplitudeAt(span(at, 0.04), 440, true) < before / 2)
                run.moveGapMs += 10;
        }
    }
    for (QProcess &player : players) {
        player.kill();
        player.waitForFinished();
    }
    return run;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    if (qEnvironmentVariableIsEmpty("SELVARO_PULSE_DAEMON_PID"))
        return underFixtures(argc, argv);
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 60;
    const bool echo = argc > 2 && QByteArray(argv[2]) == "--echo";

    QTemporaryDir dir;
    const QString systemTone = dir.filePath(QStringLiteral("440.wav"));
    const QString microphoneTone = dir.filePath(QStringLiteral("1000.wav"));
    if (!writeTone(systemTone, 440, seconds + 5) || !writeTone(microphoneTone, 1000, seconds + 5))
        return 1;
    for (const int frequency : { 550, 660, 880, 3000 }) {
        if (!writeTone(dir.filePath(QStringLiteral("%1.wav").arg(frequency)), frequency, seconds + 5))
            return 1;
    }
    const auto play = [](QProcess &player, const char *device, const QString &tone) {
        player.start(QStringLiteral("paplay"),
            { QStringLiteral("--latency-msec=20"), QString::fromLatin1(device), tone });
    };
    QProcess systemPlayer, microphonePlayer, laterPlayer;
    play(systemPlayer, "--device=speakers", systemTone);
    play(microphonePlayer, "--device=micfeed", microphoneTone);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    PulseSoundServer server;
    SystemRecorder system(dir.filePath(QStringLiteral("bench_system.wav")), server);
    MicRecorder microphone(dir.filePath(QStringLiteral("bench_microphone.wav")), server);
    using Steady = std::chrono::steady_clock;
    const Steady::time_point pressed = Steady::now();
    if (auto error = microphone.start(pressed)) {
        std::fprintf(stderr, "microphone: %s\n", qPrintable(describe(*error)));
        return 1;
    }
    if (auto error = system.start(pressed)) {
        std::fprintf(stderr, "system: %s\n", qPrintable(describe(*error)));
        return 1;
    }
    LiveMixer mixer(
        { system.filePath(), microphone.filePath(), dir.filePath(QStringLiteral("bench_mixed.m4a")), echo });
    const double cpuBefore = cpuSeconds();
    const auto wallBefore = Steady::now();
    const auto since
        = [](Steady::time_point from) { return std::chrono::duration<double>(Steady::now() - from).count(); };
    // The screen reads both levels 25 times a second while recording.
    const double idleFrom = seconds * 0.5 - 5;
    bool idle = false;
    bool resumed = false;
    double trackLag = 0;
    float loudest[2] {};
    while (since(wallBefore) < seconds) {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        loudest[0] = std::max(loudest[0], system.takeLevel());
        loudest[1] = std::max(loudest[1], microphone.takeLevel());
        const double recorded = since(pressed);
        for (const SourceRecorder::Statistics &track : { system.statistics(), microphone.statistics() }) {
            const double length = static_cast<double>(track.framesDelivered) / 48000;
            trackLag = std::max(trackLag, recorded - length);
        }
        if (!idle && since(wallBefore) >= idleFrom) {
            idle = true;
            systemPlayer.kill();
            systemPlayer.waitForFinished();
        }
        if (idle && !resumed && since(wallBefore) >= idleFrom + 10) {
            resumed = true;
            play(laterPlayer, "--device=speakers", systemTone);
        }
    }
    const SystemRecorder::Statistics systemBefore = system.statistics();
    const MicRecorder::Statistics microphoneBefore = microphone.statistics();
    microphone.stop();
    system.stop();
    const double recorded = since(pressed);
    const double cpu = cpuSeconds() - cpuBefore;
    const double wall = since(wallBefore);
    bool mixed = false;
    QCoro::waitFor(finishCatching(mixer.finish([](const QString &) {}), mixed));
    for (QProcess *player : { &systemPlayer, &microphonePlayer, &laterPlayer }) {
        player->kill();
        player->waitForFinished();
    }

    const SystemRecorder::Statistics systemAfter = system.statistics();
    const MicRecorder::Statistics microphoneAfter = microphone.statistics();
    const auto lost = static_cast<long long>(
                          systemAfter.framesDelivered - systemAfter.framesWritten - systemAfter.framesDropped)
        + static_cast<long long>(microphoneAfter.framesDelivered - microphoneAfter.framesWritten);
    std::printf("recorded %.1f s; system: %llu frames delivered, %llu written; microphone: %llu delivered, "
                "%llu written\n",
        wall, static_cast<unsigned long long>(systemAfter.framesDelivered),
        static_cast<unsigned long long>(systemAfter.framesWritten),
        static_cast<unsigned long long>(microphoneAfter.framesDelivered),
        static_cast<unsigned long long>(microphoneAfter.framesWritten));
    std::printf(
        "system file %.2f s, microphone file %.2f s (at the last sample before stop: %.2f s / %.2f s)\n",
        static_cast<double>(systemAfter.framesWritten) / 48000,
        static_cast<double>(microphoneAfter.framesWritten) / 48000,
        static_cast<double>(systemBefore.framesWritten) / 48000,
        static_cast<double>(microphoneBefore.framesWritten) / 48000);
    const double systemSeconds = static_cast<double>(systemAfter.framesWritten) / 48000;
    const double microphoneSeconds = static_cast<double>(microphoneAfter.framesWritten) / 48000;
    const double trackError = std::max({ std::abs(systemSeconds - recorded),
        std::abs(microphoneSeconds - recorded), std::abs(systemSeconds - microphoneSeconds) });
    std::printf(
        "recorded %.3f s from the first start(); loudest levels read: system %.2f, microphone %.2f; "
        "absorbed: system %llu, microphone %llu frames; silence: system %llu, microphone %llu frames\n",
        recorded, static_cast<double>(loudest[0]), static_cast<double>(loudest[1]),
        static_cast<unsigned long long>(systemAfter.framesAbsorbed),
        static_cast<unsigned long long>(microphoneAfter.framesAbsorbed),
        static_cast<unsigned long long>(systemAfter.framesOfSilence),
        static_cast<unsigned long long>(microphoneAfter.framesOfSilence));
    QProcess::execute(QStringLiteral("pactl"),
        { QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
            QStringLiteral("sink_name=headset") });
    const ApplicationRun allApps = recordSystemAudio(dir, {}, std::max(6, seconds / 4));
    const ApplicationRun chosen = recordSystemAudio(dir, QStringLiteral("meeting"), std::max(6, seconds / 4));
    std::printf("cpu_percent=%.2f echo=%d lost_frames=%lld mixed=%d start_gap_system_ms=%.0f "
                "start_gap_microphone_ms=%.0f "
                "track_error_ms=%.0f track_lag_ms=%.0f all_apps_cpu_percent=%.2f app_cpu_percent=%.2f "
                "app_leak_db=%.0f "
                "app_pickup_ms=%.0f app_move_gap_ms=%.0f\n",
        100 * cpu / wall, echo ? 1 : 0, lost, mixed ? 1 : 0,
        static_cast<double>(systemAfter.framesBeforeFirstBlock) / 48,
        static_cast<double>(microphoneAfter.framesBeforeFirstBlock) / 48, 1000 * trackError, 1000 * trackLag,
        allApps.cpuPercent, chosen.cpuPercent, chosen.leakDb, chosen.pickupMs, chosen.moveGapMs);
    return 0;
}
