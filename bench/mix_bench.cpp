// Mixes ten minutes of generated capture files (system audio 48 kHz stereo float,
// microphone 48 kHz mono 16-bit) with AudioMixer, and the same job with the FFmpeg
// command line (same encoder and settings), each in a child process of its own so
// that time and peak memory are those of that job alone. Rounds alternate and the
// best round of each counts.
//
//   mix_bench [--minutes N] [--rounds N] [--ffmpeg PATH]
//
// Last line: ratio=<our seconds / command line seconds> peak_rss_mib=<ours>

#include "audio/AudioMixer.h"
#include "audio/DualRecorderError.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <qcoro/qcorotask.h>

#include <sndfile.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <numbers>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int rate = 48000;

// Something with the spectrum of speech or music rather than a pure tone, so the
// encoder does the work it does on a real recording: a few drifting partials with a
// slow envelope and a little noise. Deterministic, so every run encodes the same.
bool writeInput(const std::string &path, int channels, int format, long long frames, unsigned seed)
{
    SF_INFO info {};
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | format;
    SNDFILE *file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file)
        return false;
    constexpr long long block = 8192;
    std::vector<float> samples(static_cast<size_t>(block * channels));
    unsigned noise = seed;
    std::vector<double> phase(static_cast<size_t>(channels * 4), 0.0);
    for (long long start = 0; start < frames; start += block) {
        const long long count = std::min(block, frames - start);
        for (long long i = 0; i < count; ++i) {
            const double t = static_cast<double>(start + i) / rate;
            const double envelope = 0.5 + 0.4 * std::sin(2 * std::numbers::pi * 0.7 * t);
            for (int c = 0; c < channels; ++c) {
                double value = 0;
                for (int p = 0; p < 4; ++p) {
                    const double frequency
                        = (110.0 + 97.0 * p + 31.0 * c) * (1 + 0.05 * std::sin(0.3 * t + p));
                    double &ph = phase[static_cast<size_t>(c * 4 + p)];
                    ph += 2 * std::numbers::pi * frequency / rate;
                    value += std::sin(ph) / (p + 1);
                }
                noise = noise * 1664525u + 1013904223u;
                const double white = (static_cast<double>(noise >> 8) / (1u << 24)) - 0.5;
                samples[static_cast<size_t>(i * channels + c)]
                    = static_cast<float>(0.3 * envelope * value + 0.02 * white);
            }
        }
        if (sf_writef_float(file, samples.data(), count) != count) {
            sf_close(file);
            return false;
        }
    }
    sf_close(file);
    return true;
}

struct Measure
{
    double seconds = 0;
    double peakMiB = 0;
    double cpuSeconds = 0; // user + system: what the job cost, whatever else the machine ran
    bool ok = false;
};

// Runs argv in a child with standard output discarded; times it to its exit and
// takes its own peak resident size from wait4.
Measure runChild(const std::vector<std::string> &arguments)
{
    std::vector<char *> argv;
    for (const std::string &a : arguments)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);

    const auto started = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    Measure measure;
    if (pid < 0)
        return measure;
    int status = 0;
    rusage usage {};
    if (wait4(pid, &status, 0, &usage) != pid)
        return measure;
    measure.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    measure.peakMiB = static_cast<double>(usage.ru_maxrss) / 1024.0;
    const auto toSeconds = [](const timeval &t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    measure.cpuSeconds = toSeconds(usage.ru_utime) + toSeconds(usage.ru_stime);
    measure.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return measure;
}

QCoro::Task<> mixCatching(AudioMixer::Files files, int &exitCode)
{
    try {
        co_await AudioMixer::mixAudioFiles(std::move(files), [](const QString &) {});
        exitCode = 0;
    } catch (const DualRecorderError &error) {
        std::fprintf(stderr, "mix failed: %s\n", error.what());
        exitCode = 1;
    }
}

// The child: the application's own code path, awaited from an event loop.
int mixChild(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    int exitCode = 1;
    QCoro::waitFor(mixCatching(
        { QString::fromLocal8Bit(argv[2]), QString::fromLocal8Bit(argv[3]), QString::fromLocal8Bit(argv[4]) },
        exitCode));
    return exitCode;
}

std::string findFfmpeg()
{
    for (const char *candidate : { "/usr/bin/ffmpeg", "/usr/local/bin/ffmpeg" })
        if (access(candidate, X_OK) == 0)
            return candidate;
    return {};
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 5 && std::strcmp(argv[1], "--child-mix") == 0)
        return mixChild(argc, argv);

    double minutes = 10;
    int rounds = 3;
    std::string ffmpeg = findFfmpeg();
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--minutes") == 0)
            minutes = std::atof(argv[i + 1]);
        else if (std::strcmp(argv[i], "--rounds") == 0)
            rounds = std::max(1, std::atoi(argv[i + 1]));
        else if (std::strcmp(argv[i], "--ffmpeg") == 0)
            ffmpeg = argv[i + 1];
    }
    if (ffmpeg.empty()) {
        std::fprintf(stderr, "mix_bench: no ffmpeg command line found\n");
        return 2;
    }

    QTemporaryDir dir;
    if (!dir.isValid())
        return 2;
    const std::string folder = QFile::encodeName(dir.path()).toStdString();
    const std::string system = folder + "/bench_system.wav";
    const std::string microphone = folder + "/bench_microphone.wav";
    const std::string ours = folder + "/bench_mixed.m4a";
    const std::string theirs = folder + "/bench_cli.m4a";
    const long long frames = static_cast<long long>(minutes * 60 * rate);
    const double audioSeconds = static_cast<double>(frames) / rate;

    std::printf("generating %.0f s of input in %s\n", audioSeconds, folder.c_str());
    std::fflush(stdout);
    if (!writeInput(system, 2, SF_FORMAT_FLOAT, frames, 1)
        || !writeInput(microphone, 1, SF_FORMAT_PCM_16, frames, 2)) {
        std::fprintf(stderr, "mix_bench: cannot write the input files\n");
        return 2;
    }

    const std::string self = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath().toStdString();
    const std::vector<std::string> ourCommand { self, "--child-mix", system, microphone, ours };
    const std::vector<std::string> cliCommand { ffmpeg, "-nostdin", "-hide_banner", "-loglevel", "error",
        "-y", "-i", system, "-i", microphone, "-filter_complex",
        "[0:a]pan=mono|c0=0.5*c0+0.5*c1[l];[l][1:a]join=inputs=2:channel_layout=stereo[a]", "-map", "[a]",
        "-c:a", "aac", "-aac_coder", "fast", "-b:a", "192k", "-ar", "48000", "-movflags", "+faststart",
        theirs };

    std::optional<Measure> bestOurs;
    std::optional<Measure> bestCli;
    double ourPeak = 0;
    double cliPeak = 0;
    for (int round = 0; round < rounds; ++round) {
        const Measure a = runChild(ourCommand);
        const Measure b = runChild(cliCommand);
        if (!a.ok || !b.ok) {
            std::fprintf(stderr, "mix_bench: a run failed (ours %s, command line %s)\n",
                a.ok ? "ok" : "failed", b.ok ? "ok" : "failed");
            return 1;
        }
        std::printf(
            "round %d: ours %.2f s (cpu %.2f s) %.1f MiB, command line %.2f s (cpu %.2f s) %.1f MiB\n",
            round + 1, a.seconds, a.cpuSeconds, a.peakMiB, b.seconds, b.cpuSeconds, b.peakMiB);
        std::fflush(stdout);
        ourPeak = std::max(ourPeak, a.peakMiB);
        cliPeak = std::max(cliPeak, b.peakMiB);
        if (!bestOurs || a.seconds < bestOurs->seconds)
            bestOurs = a;
        if (!bestCli || b.seconds < bestCli->seconds)
            bestCli = b;
    }

    // Time is the best round's (the machine is shared); peak memory the worst round's.
    std::printf(
        "input: %.0f s, system 48000 Hz stereo float, microphone 48000 Hz mono 16-bit\n", audioSeconds);
    std::printf("ours:         %.2f s (cpu %.2f s), %.1fx real time, peak %.1f MiB, %lld bytes\n",
        bestOurs->seconds, bestOurs->cpuSeconds, audioSeconds / bestOurs->seconds, ourPeak,
        static_cast<long long>(QFileInfo(QString::fromStdString(ours)).size()));
    std::printf("command line: %.2f s (cpu %.2f s), %.1fx real time, peak %.1f MiB, %lld bytes\n",
        bestCli->seconds, bestCli->cpuSeconds, audioSeconds / bestCli->seconds, cliPeak,
        static_cast<long long>(QFileInfo(QString::fromStdString(theirs)).size()));
    std::printf("ratio=%.3f peak_rss_mib=%.1f\n", bestOurs->seconds / bestCli->seconds, ourPeak);
    return 0;
}
