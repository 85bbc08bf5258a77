// The echo filter over the room of bench/room/EchoRoom (speech from espeak-ng; bulk delay
// 250 ms, reverberation 0.4 s, echo 12 dB down, low noise), for 60 s and for 10
// minutes: the figures of docs/mixer.md, and the filter's processor time against the
// audio's length on one thread. The headset room (no echo) must come out sample for
// sample as it went in.
//
//   build/bench/echo_bench [--short 60] [--long 600]
//
// Then the nearest, loudest echo of the tests' rooms (150 ms, 0.3 s, 6 dB down) and the
// farthest, quietest (450 ms, 0.6 s, 20 dB down) at the short length.
//
// Last line: erle_db=<n> nearend_change_db=<n> doubletalk_drop_db=<n> realtime_factor=<n>
// headset_identical=<0|1> (the figures of the long run) worst_erle_db=<n>
// worst_doubletalk_drop_db=<n> (the worst of every room and length)

#include "audio/EchoFilter.h"
#include "bench/room/EchoRoom.h"

#include <QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <tuple>
#include <utility>

namespace {

double threadSeconds()
{
    timespec now {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The room's microphone through the filter in the mixer's chunks; the processor time.
std::vector<float> filtered(const EchoRoom &room, double *seconds)
{
    EchoFilter filter;
    std::vector<float> out;
    out.reserve(room.microphone().size());
    const EchoFilter::Sink keep = [&out](const float *, const float *right, int frames) {
        out.insert(out.end(), right, right + frames);
        return true;
    };
    const double before = threadSeconds();
    for (size_t at = 0; at < room.microphone().size(); at += 4096) {
        const int n = static_cast<int>(std::min<size_t>(4096, room.microphone().size() - at));
        if (!filter.push(room.speakers().data() + at, room.microphone().data() + at, n, keep))
            return {};
    }
    if (!filter.finish(keep))
        return {};
    *seconds = threadSeconds() - before;
    return out;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    double lengths[] = { 60, 600 };
    for (int i = 1; i + 1 < argc; i += 2)
        lengths[std::strcmp(argv[i], "--short") == 0 ? 0 : 1] = std::atof(argv[i + 1]);
    // The room of the figures at both lengths, then the nearest and loudest and the
    // farthest and quietest echo of the tests' rooms at the short length.
    struct Run
    {
        double seconds;
        EchoRoom::Options room;
    };
    const Run runs[] = { { lengths[0], {} }, { lengths[1], {} }, { lengths[0], { 0, 0.15, 0.3, 6, true, 1 } },
        { lengths[0], { 0, 0.45, 0.6, 20, true, 3 } } };
    EchoRoom::Figures figures;
    double factor = 0;
    double worstErle = 1e9;
    double worstDrop = 0;
    bool identical = true;
    for (const Run &run : runs) {
        for (const bool echo : { true, false }) {
            EchoRoom room;
            EchoRoom::Options options = run.room;
            options.seconds = run.seconds;
            options.echo = echo;
            if (auto error = EchoRoom::make(options, &room)) {
                std::fprintf(stderr, "%s\n", qPrintable(*error));
                return 1;
            }
            double seconds = 0;
            const std::vector<float> out = filtered(room, &seconds);
            if (!echo) {
                identical = identical && out == room.microphone();
                continue;
            }
            const EchoRoom::Figures measured = room.measure(out);
            worstErle = std::min(worstErle, measured.erleDb);
            worstDrop = std::max(worstDrop, measured.doubleTalkDropDb);
            std::printf("%.0f s, %.0f ms, %.1f s, -%.0f dB: erle_db=%.2f nearend_change_db=%.3f "
                        "nearend_correlation=%.4f doubletalk_drop_db=%.2f realtime_factor=%.4f\n",
                run.seconds, options.delaySeconds * 1000, options.reverbSeconds, options.attenuationDb,
                measured.erleDb, measured.nearEndChangeDb, measured.nearEndCorrelation,
                measured.doubleTalkDropDb, seconds / run.seconds);
            if (&run == &runs[1])
                std::tie(figures, factor) = std::pair { measured, seconds / run.seconds };
        }
    }
    std::printf("erle_db=%.2f nearend_change_db=%.3f doubletalk_drop_db=%.2f realtime_factor=%.4f "
                "headset_identical=%d worst_erle_db=%.2f worst_doubletalk_drop_db=%.2f\n",
        figures.erleDb, figures.nearEndChangeDb, figures.doubleTalkDropDb, factor, identical ? 1 : 0,
        worstErle, worstDrop);
    return 0;
}
