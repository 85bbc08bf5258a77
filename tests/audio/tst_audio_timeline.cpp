#include "audio/CaptureTimeline.h"
#include "common/Logging.h"
#include "support/LogCapture.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 perMs = 48;

// What happens `at` ms after the start. `blocks`: a block of `frames` heard every 25 ms
// from `at` to `until`, each arriving `late` ms after it was heard and not before `held`
// (a burst); `origin`: the track counts from `at` (the press of Record, before the start).
struct Event
{
    enum Kind { blocks, origin, pause, resume, stop } kind;
    int at;
    int until = 0;
    qint64 frames = 1200;
    int late = 0;
    int held = 0;
};
using Events = QList<Event>;
// Block n's first kept frame at ms of the track (-1: dropped); a negative n counts from the end.
using Landings = QList<std::pair<int, double>>;

struct Run
{
    std::vector<float> track; // silence 0, block n's frames n + 1
    int blocks = 0;
    qint64 recordedMs = 0;
    Capture::Counters counters;
};

// Plays a row against a timeline ticked every 40 ms, so that no tick lands right on a limit.
Run run(const Events &events)
{
    struct Step
    {
        int at, heard, block;
        const Event *event;
    };
    Run result;
    std::vector<Step> steps; // each block on its own
    for (const Event &e : events) {
        for (int heard = e.at; e.kind == Event::blocks && heard <= std::max(e.at, e.until); heard += 25)
            steps.push_back({ std::max(heard + e.late, e.held), heard, result.blocks++, &e });
        if (e.kind != Event::blocks)
            steps.push_back({ e.at, e.at, 0, &e });
    }
    std::ranges::stable_sort(steps, {}, &Step::at);
    CaptureTimeline timeline(48000, sizeof(float), lcGlobalTap(), [&](const void *data, qint64 frames) {
        if (const auto *from = static_cast<const float *>(data))
            result.track.insert(result.track.end(), from, from + frames);
        else
            result.track.resize(result.track.size() + static_cast<size_t>(frames));
    });
    const auto start = std::chrono::steady_clock::now();
    const auto at = [start](int ms) { return start + std::chrono::milliseconds(ms); };
    timeline.start(start);
    int ticked = 0, pausedAt = 0;
    for (const Step &step : steps) {
        for (; ticked < step.at; ticked += 40)
            timeline.tick(at(ticked));
        const Event &e = *step.event;
        if (e.kind == Event::blocks) {
            const std::vector<float> samples(static_cast<size_t>(e.frames), float(step.block + 1));
            timeline.place(samples.data(), e.frames, at(step.heard));
        } else if (e.kind == Event::origin) {
            timeline.setOrigin(at(e.at));
            result.recordedMs -= e.at;
        } else if (e.kind == Event::pause) {
            timeline.suspend(at(pausedAt = e.at));
        } else if (e.kind == Event::resume) {
            timeline.resume(at(e.at));
            result.recordedMs -= e.at - pausedAt;
        } else {
            timeline.finish(at(e.at));
            result.recordedMs += e.at;
        }
    }
    result.counters = timeline.counters();
    return result;
}

} // namespace

Q_DECLARE_METATYPE(Events)
Q_DECLARE_METATYPE(Landings)

class AudioTimeline : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A source's blocks, pauses and the stop, the present moved by hand: the track as long
    // as the recorded time (±1 frame, or up to `aheadMs` ahead where the rule lets a
    // source run ahead), each block where it was heard, and one line per gap.
    void placesBlocksOnTheClock_data()
    {
        QTest::addColumn<Events>("events");
        QTest::addColumn<int>("aheadMs");
        QTest::addColumn<Landings>("landings");
        QTest::addColumn<QStringList>("gaps");
        const Event steady { Event::blocks, 25, 1000 }, pause { Event::pause, 500 },
            resume { Event::resume, 1000 };
        const auto gap = [](int ms, const char *at) {
            return u"Filled %1 ms without audio at %2 s with silence"_s.arg(ms).arg(QLatin1StringView(at));
        };
        QTest::newRow("first block late, from the press")
            << Events { { Event::origin, -100 }, { Event::blocks, 400, 1000 }, { Event::stop, 1000 } } << 0
            << Landings { { 0, 475 } } << QStringList { gap(475, "0.000") };
        QTest::newRow("a stall filled by ticks")
            << Events { steady, { Event::blocks, 1525, 2000 }, { Event::stop, 2000 } } << 0
            << Landings { { 39, 975 }, { 40, 1500 } } << QStringList { gap(500, "1.000") };
        QTest::newRow("a dropout no tick reached")
            << Events { steady, { Event::blocks, 1135, 2000 }, { Event::stop, 2000 } } << 0
            << Landings { { 40, 1110 } } << QStringList { gap(110, "1.000") };
        QTest::newRow("a burst after a stall")
            << Events { steady, { Event::blocks, 1030, 2000, 1200, 0, 1500 }, { Event::stop, 2000 } } << 100
            << Landings { { 40, -1 }, { 50, -1 }, { 51, 1375 } } << QStringList { gap(375, "1.000") };
        QTest::newRow("a late block") << Events { steady, { Event::blocks, 1025, 0, 1200, 235 },
            { Event::blocks, 1275, 2000 }, { Event::stop, 2000 } }
                                      << 0 << Landings { { 40, -1 }, { 41, 1250 } }
                                      << QStringList { gap(134, "1.000"), gap(115, "1.135") };
        QTest::newRow("0.5 % fast") << Events { { Event::blocks, 25, 10000, 1206 }, { Event::stop, 10000 } }
                                    << 20 << Landings { { 0, 0 } } << QStringList();
        QTest::newRow("0.5 % slow") << Events { { Event::blocks, 25, 30000, 1194 }, { Event::stop, 30000 } }
                                    << 0 << Landings { { 800, 19900.125 }, { 801, 20025.125 } }
                                    << QStringList { gap(100, "19.925") };
        QTest::newRow("two pauses") << Events { { Event::blocks, 25, 500 }, pause, resume,
            { Event::blocks, 1025, 1500 }, { Event::pause, 1500 }, { Event::resume, 2000 },
            { Event::blocks, 2025, 3000 }, { Event::stop, 3000 } }
                                    << 0 << Landings { { 20, 500 }, { 40, 1000 } } << QStringList();
        QTest::newRow("three pauses in a row") << Events { { Event::blocks, 25, 500 }, pause,
            { Event::resume, 600 }, { Event::pause, 610 }, { Event::resume, 700 }, { Event::pause, 710 },
            resume, { Event::blocks, 1025, 1500 }, { Event::stop, 1500 } }
                                               << 0 << Landings { { 20, 500 } } << QStringList();
        QTest::newRow("a block in flight at the pause")
            << Events { { Event::blocks, 25, 500, 1200, 20 }, pause, resume,
                   { Event::blocks, 1025, 2000, 1200, 20 }, { Event::stop, 2000 } }
            << 0 << Landings { { 18, 450 }, { 19, -1 }, { 20, 475 }, { -1, -1 } } << QStringList();
        QTest::newRow("a stop mid-gap") << Events { steady, { Event::stop, 1300 }, { Event::blocks, 1325 } }
                                        << 0 << Landings { { 40, -1 } } << QStringList { gap(300, "1.000") };
    }
    void placesBlocksOnTheClock()
    {
        QFETCH(Events, events);
        QFETCH(int, aheadMs);
        QFETCH(Landings, landings);
        LogCapture log;
        const Run result = run(events);

        const auto length = static_cast<qint64>(result.track.size());
        const qint64 ahead = length - result.recordedMs * perMs;
        QVERIFY2(ahead >= -1 && ahead <= std::max<qint64>(1, aheadMs * perMs),
            qPrintable(u"%1 frames for %2 ms"_s.arg(length).arg(result.recordedMs)));
        const Capture::Counters &counted = result.counters;
        QCOMPARE(counted.framesReceived - counted.framesAbsorbed + counted.framesOfSilence, quint64(length));
        for (const auto &[block, atMs] : landings) {
            const auto found
                = std::ranges::find(result.track, float(block < 0 ? result.blocks + block + 1 : block + 1));
            const qint64 at = found == result.track.end() ? -1 : found - result.track.begin();
            QVERIFY2(atMs < 0 ? at < 0 : std::abs(at - qint64(atMs * perMs)) <= 1,
                qPrintable(u"block %1 at frame %2"_s.arg(block).arg(at)));
        }
        QTEST(log.lines(u"GlobalTap"_s).filter(u"Filled"_s), "gaps");
    }
};

QTEST_GUILESS_MAIN(AudioTimeline)
#include "tst_audio_timeline.moc"
