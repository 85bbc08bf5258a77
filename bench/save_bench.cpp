// Records two simulated meetings, of 10 and of 60 minutes, and times what a user waits
// for after pressing stop: the two capture files are grown by the recorders' own writer
// (system audio 48 kHz stereo float, microphone 48 kHz mono 16-bit) faster than real
// time while the live mixer follows them; then the writers close and the mix finishes,
// as DualRecorder::stop() does. The 60-minute files are also mixed from scratch (the mix
// of finished files), and both M4A files are compared byte for byte.
//
//   save_bench [--short 10] [--long 60] [--speed 20] [--lag 2]
//
// --speed is how many times faster than real time audio is appended. A real recording
// runs at real time, where the mixer is always far ahead; so that a busy machine does
// not turn the simulation into a backlog a real recording never has, appending also
// waits while the mix is more than --lag seconds (default 2) behind. The speed reached
// is printed.
//
// Last line: save_10min_s=<n> save_60min_s=<n> batch_s=<n> ratio=<save_60min_s / batch_s>

#include "audio/AudioFileWriter.h"
#include "audio/AudioMixer.h"
#include "audio/DualRecorderError.h"
#include "audio/LiveMixer.h"
#include "common/Logging.h"

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <qcoro/qcorotask.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <numbers>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int rate = 48000;
using Clock = std::chrono::steady_clock;

// Ten seconds of something with the spectrum of speech or music (a few drifting partials
// and a little noise), appended over and over: the encoder does the work it does on a
// real recording, and generating it costs nothing while the clock runs.
struct Clip
{
    static constexpr long long frames = 10LL * rate;
    std::vector<float> system = std::vector<float>(frames * 2);
    std::vector<float> microphone = std::vector<float>(frames);

    Clip()
    {
        unsigned noise = 1;
        for (long long i = 0; i < frames; ++i) {
            const double t = static_cast<double>(i) / rate;
            const double envelope = 0.5 + 0.4 * std::sin(2 * std::numbers::pi * 0.7 * t);
            for (int c = 0; c < 3; ++c) {
                double value = 0;
                for (int p = 0; p < 4; ++p)
                    value += std::sin(2 * std::numbers::pi * (110.0 + 97.0 * p + 31.0 * c)
                                 * (t + 0.02 * std::sin(0.3 * t + p)))
                        / (p + 1);
                noise = noise * 1664525u + 1013904223u;
                const double white = (static_cast<double>(noise >> 8) / (1u << 24)) - 0.5;
                const auto sample = static_cast<float>(0.3 * envelope * value + 0.02 * white);
                (c < 2 ? system[static_cast<size_t>(i * 2 + c)] : microphone[static_cast<size_t>(i)])
                    = sample;
            }
        }
    }
};

double residentMiB()
{
    std::ifstream statm("/proc/self/statm");
    long long pages = 0;
    long long resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

QCoro::Task<> awaitCatching(QCoro::Task<> task, bool &ok)
{
    try {
        co_await std::move(task);
        ok = true;
    } catch (const DualRecorderError &error) {
        std::fprintf(stderr, "save_bench: the mix failed: %s\n", error.what());
    }
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// One recording of `minutes`, appended at `speed` times real time in 100 ms blocks;
// the seconds from stop to the finished M4A, or a negative number on failure.
double recordAndSave(std::FILE *report, const Clip &clip, const AudioMixer::Files &files, double minutes,
    double speed, double lag)
{
    AudioFileWriter system("SystemRecorder", lcMixer());
    AudioFileWriter microphone("MicRecorder", lcMixer());
    if (system.open(files.systemAudio, { SampleSpec::Sample::float32, rate, 2 })
        || microphone.open(files.microphone, { SampleSpec::Sample::int16, rate, 1 }))
        return -1;
    LiveMixer mixer(files);
    const long long total = static_cast<long long>(minutes * 60 * rate);
    constexpr long long block = rate / 10;
    const auto began = Clock::now();
    for (long long at = 0; at < total; at += block) {
        const long long n = std::min(block, total - at);
        const long long inClip = at % Clip::frames;
        system.push(clip.system.data() + inClip * 2, n);
        microphone.push(clip.microphone.data() + inClip, n);
        std::this_thread::sleep_until(began
            + std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double>(static_cast<double>(at + n) / rate / speed)));
        while (static_cast<double>(at + n - mixer.framesFollowed()) / rate > lag)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const double appending = std::chrono::duration<double>(Clock::now() - began).count();

    const auto stopped = Clock::now();
    system.close();
    microphone.close();
    bool ok = false;
    QCoro::waitFor(awaitCatching(mixer.finish([](const QString &) {}), ok));
    const double save = std::chrono::duration<double>(Clock::now() - stopped).count();
    std::fprintf(report, "%.0f min appended in %.1f s (%.1fx real time); save %.3f s; resident %.1f MiB\n",
        minutes, appending, minutes * 60 / appending, save, residentMiB());
    std::fflush(report);
    return ok ? save : -1;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    double shortMinutes = 10;
    double longMinutes = 60;
    double speed = 20;
    double lag = 2;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--short") == 0)
            shortMinutes = std::atof(argv[i + 1]);
        else if (std::strcmp(argv[i], "--long") == 0)
            longMinutes = std::atof(argv[i + 1]);
        else if (std::strcmp(argv[i], "--speed") == 0)
            speed = std::max(1.0, std::atof(argv[i + 1]));
        else if (std::strcmp(argv[i], "--lag") == 0)
            lag = std::max(1.0, std::atof(argv[i + 1]));
    }

    // The mixer's "Progress:" lines would bury the figures: standard output goes away, and
    // the report goes where standard output went.
    std::fflush(stdout);
    std::FILE *report = fdopen(dup(STDOUT_FILENO), "w");
    const int null = open("/dev/null", O_WRONLY);
    if (!report || null < 0 || dup2(null, STDOUT_FILENO) < 0)
        return 2;

    QTemporaryDir dir;
    if (!dir.isValid())
        return 2;
    const Clip clip;
    const AudioMixer::Files files { dir.filePath(QStringLiteral("bench_system.wav")),
        dir.filePath(QStringLiteral("bench_microphone.wav")),
        dir.filePath(QStringLiteral("bench_mixed.m4a")) };

    const double saveShort = recordAndSave(report, clip, files, shortMinutes, speed, lag);
    const double saveLong = recordAndSave(report, clip, files, longMinutes, speed, lag);
    if (saveShort < 0 || saveLong < 0)
        return 1;

    // The same files mixed from scratch, the way it was done before the mix followed.
    AudioMixer::Files batch = files;
    batch.output = dir.filePath(QStringLiteral("bench_batch.m4a"));
    const auto started = Clock::now();
    bool ok = false;
    QCoro::waitFor(awaitCatching(AudioMixer::mixAudioFiles(batch, [](const QString &) {}), ok));
    const double batchSeconds = std::chrono::duration<double>(Clock::now() - started).count();
    if (!ok)
        return 1;
    const bool identical = contents(files.output) == contents(batch.output);
    std::fprintf(report, "%.0f min mixed from the finished files in %.2f s; the two M4A files are %s\n",
        longMinutes, batchSeconds, identical ? "identical" : "DIFFERENT");
    std::fprintf(report, "save_%.0fmin_s=%.3f save_%.0fmin_s=%.3f batch_s=%.2f ratio=%.4f\n", shortMinutes,
        saveShort, longMinutes, saveLong, batchSeconds, saveLong / batchSeconds);
    return identical ? 0 : 1;
}
