// Records system audio and the microphone from a private PulseAudio daemon while
// tones play, with the live mixer following the two files as in a real recording, and
// reports the process's CPU use (capture, writers and mixing) and whether any frame was
// lost between the server and the files. Starts the daemon itself (through the test
// fixtures) unless it already runs under one.
//
//   build/bench/capture_bench [seconds]      (default 60)
//
// Last line: cpu_percent=<n> lost_frames=<n> mixed=<1 when the live mix finished>

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

    QTemporaryDir dir;
    const QString systemTone = dir.filePath(QStringLiteral("440.wav"));
    const QString microphoneTone = dir.filePath(QStringLiteral("1000.wav"));
    if (!writeTone(systemTone, 440, seconds + 5) || !writeTone(microphoneTone, 1000, seconds + 5))
        return 1;
    QProcess systemPlayer, microphonePlayer;
    systemPlayer.start(QStringLiteral("paplay"), { QStringLiteral("--device=speakers"), systemTone });
    microphonePlayer.start(QStringLiteral("paplay"), { QStringLiteral("--device=micfeed"), microphoneTone });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    PulseSoundServer server;
    SystemRecorder system(dir.filePath(QStringLiteral("bench_system.wav")), server);
    MicRecorder microphone(dir.filePath(QStringLiteral("bench_microphone.wav")), server);
    if (auto error = microphone.start()) {
        std::fprintf(stderr, "microphone: %s\n", qPrintable(describe(*error)));
        return 1;
    }
    if (auto error = system.start()) {
        std::fprintf(stderr, "system: %s\n", qPrintable(describe(*error)));
        return 1;
    }
    LiveMixer mixer(
        { system.filePath(), microphone.filePath(), dir.filePath(QStringLiteral("bench_mixed.m4a")) });
    const double cpuBefore = cpuSeconds();
    const auto wallBefore = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const SystemRecorder::Statistics systemBefore = system.statistics();
    const MicRecorder::Statistics microphoneBefore = microphone.statistics();
    microphone.stop();
    system.stop();
    const double cpu = cpuSeconds() - cpuBefore;
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallBefore).count();
    bool mixed = false;
    QCoro::waitFor(finishCatching(mixer.finish([](const QString &) {}), mixed));
    systemPlayer.kill();
    microphonePlayer.kill();
    systemPlayer.waitForFinished();
    microphonePlayer.waitForFinished();

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
    std::printf("cpu_percent=%.2f lost_frames=%lld mixed=%d\n", 100 * cpu / wall, lost, mixed ? 1 : 0);
    return 0;
}
