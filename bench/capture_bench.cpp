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
// Last line: cpu_percent=<n> echo=<0|1> lost_frames=<n> mixed=<1 when the live mix finished>
// start_gap_system_ms=<n> start_gap_microphone_ms=<n> track_error_ms=<n> track_lag_ms=<n>
//
// The recorded time counts from the first start() (the microphone's) to the stop.
// track_error_ms: the largest difference between a file's length and the recorded
// time, or between the two files: what the mix lays side by side. track_lag_ms: the
// most a track ever was behind the clock while running, sampled every 40 ms: audio
// on its way, or a gap not yet long enough to be written as silence (100 ms).

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
    std::printf("cpu_percent=%.2f echo=%d lost_frames=%lld mixed=%d start_gap_system_ms=%.0f "
                "start_gap_microphone_ms=%.0f "
                "track_error_ms=%.0f track_lag_ms=%.0f\n",
        100 * cpu / wall, echo ? 1 : 0, lost, mixed ? 1 : 0,
        static_cast<double>(systemAfter.framesBeforeFirstBlock) / 48,
        static_cast<double>(microphoneAfter.framesBeforeFirstBlock) / 48, 1000 * trackError, 1000 * trackLag);
    return 0;
}
