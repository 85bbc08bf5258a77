#include "audio/CaptureTimeline.h"
#include "common/Logging.h"
#include "support/LogCapture.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// What happens `at` ms after the start. `blocksFrom`: a block of `frames` heard every
// 25 ms from `at` to `until`, each arriving `late` ms after it was heard and not before
// `held` (a burst); `originAt`: the track counts from `at`, the press of Record.
enum Kind { blocksFrom, originAt, pauseAt, resumeAt, stopAt };
struct Event
{
    Kind kind;
    int at;
    int until = 0;
    qint64 frames = 1200;
    int late = 0;
    int held = 0;
};
using Events = QList<Event>;
// Block n's first kept frame at ms of the track (-1: dropped); a negative n counts from the end.
using Landings = QList<std::pair<int, double>>;

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
        const Event steady { blocksFrom, 25, 1000 };
        const auto gap = [](int ms, const char *at) {
            return u"Filled %1 ms without audio at %2 s with silence"_s.arg(ms).arg(QLatin1StringView(at));
        };
        QTest::newRow("first block late, from the press")
            << Events { { originAt, -100 }, { blocksFrom, 400, 1000 }, { stopAt, 1000 } } << 0
            << Landings { { 0, 475 } } << QStringList { gap(475, "0.000") };
        QTest::newRow("a stall filled by ticks")
            << Events { steady, { blocksFrom, 1525, 2000 }, { stopAt, 2000 } } << 0
            << Landings { { 39, 975 }, { 40, 1500 } } << QStringList { gap(500, "1.000") };
        QTest::newRow("a dropout no tick reached")
            << Events { steady, { blocksFrom, 1135, 2000 }, { stopAt, 2000 } } << 0
            << Landings { { 40, 1110 } } << QStringList { gap(110, "1.000") };
        QTest::newRow("a burst after a stall")
            << Events { steady, { blocksFrom, 1030, 2000, 1200, 0, 1500 }, { stopAt, 2000 } } << 100
            << Landings { { 40, -1 }, { 50, -1 }, { 51, 1375 } } << QStringList { gap(375, "1.000") };
        QTest::newRow("0.5 % fast") << Events { { blocksFrom, 25, 10000, 1206 }, { stopAt, 10000 } } << 20
                                    << Landings { { 0, 0 } } << QStringList();
        QTest::newRow("0.5 % slow") << Events { { blocksFrom, 25, 30000, 1194 }, { stopAt, 30000 } } << 0
                                    << Landings { { 800, 19900.125 }, { 801, 20025.125 } }
                                    << QStringList { gap(100, "19.925") };
        QTest::newRow("three pauses in a row") << Events { { blocksFrom, 25, 500 }, { pauseAt, 500 },
            { resumeAt, 600 }, { pauseAt, 610 }, { resumeAt, 700 }, { pauseAt, 710 }, { resumeAt, 1000 },
            { blocksFrom, 1025, 1500 }, { stopAt, 1500 } }
                                               << 0 << Landings { { 20, 500 } } << QStringList();
        QTest::newRow("a block in flight at the pause")
            << Events { { blocksFrom, 25, 500, 1200, 20 }, { pauseAt, 500 }, { resumeAt, 1000 },
                   { blocksFrom, 1025, 2000, 1200, 20 }, { stopAt, 2000 } }
            << 0 << Landings { { 18, 450 }, { 19, -1 }, { 20, 475 }, { -1, -1 } } << QStringList();
        QTest::newRow("a stop mid-gap") << Events { steady, { stopAt, 1300 }, { blocksFrom, 1325 } } << 0
                                        << Landings { { 40, -1 } } << QStringList { gap(300, "1.000") };
    }
    void placesBlocksOnTheClock()
    {
        QFETCH(Events, events);
        QFETCH(int, aheadMs);
        QFETCH(Landings, landings);
        // Each block on its own, in the order of arrival, numbered in the order heard.
        struct Step
        {
            int at, heard, block;
            const Event *event;
        };
        std::vector<Step> steps;
        int blocks = 0;
        for (const Event &e : events) {
            for (int heard = e.at; e.kind == blocksFrom && heard <= std::max(e.at, e.until); heard += 25)
                steps.push_back({ std::max(heard + e.late, e.held), heard, blocks++, &e });
            if (e.kind != blocksFrom)
                steps.push_back({ e.at, e.at, 0, &e });
        }
        std::ranges::stable_sort(steps, {}, &Step::at);
        std::vector<float> track; // silence 0, block n's frames n + 1
        CaptureTimeline timeline(48000, sizeof(float), lcGlobalTap(), [&](const void *data, qint64 frames) {
            if (const auto *from = static_cast<const float *>(data))
                track.insert(track.end(), from, from + frames);
            else
                track.resize(track.size() + static_cast<size_t>(frames));
        });
        LogCapture log;
        const auto start = std::chrono::steady_clock::now();
        const auto at = [start](int ms) { return start + std::chrono::milliseconds(ms); };
        timeline.start(start);
        // Ticked every 40 ms, so that no tick lands right on a limit.
        int ticked = 0, pausedAt = 0, recordedMs = 0;
        for (const auto &[arrival, heard, block, e] : steps) {
            for (; ticked < arrival; ticked += 40)
                timeline.tick(at(ticked));
            const std::vector<float> samples(static_cast<size_t>(e->frames), float(block + 1));
            if (e->kind == blocksFrom)
                timeline.place(samples.data(), e->frames, at(heard));
            else if (e->kind == originAt)
                timeline.setOrigin(at(e->at));
            else if (e->kind == pauseAt)
                timeline.suspend(at(pausedAt = e->at));
            else if (e->kind == resumeAt)
                timeline.resume(at(e->at));
            else
                timeline.finish(at(e->at));
            recordedMs += e->kind == stopAt ? e->at : e->kind == resumeAt ? pausedAt - e->at : 0;
            recordedMs -= e->kind == originAt ? e->at : 0;
        }

        const auto length = static_cast<qint64>(track.size());
        QVERIFY2(length >= recordedMs * 48 - 1 && length <= recordedMs * 48 + std::max(1, aheadMs * 48),
            qPrintable(u"%1 frames for %2 ms"_s.arg(length).arg(recordedMs)));
        const Capture::Counters counted = timeline.counters();
        QCOMPARE(counted.framesReceived - counted.framesAbsorbed + counted.framesOfSilence, quint64(length));
        for (const auto &[block, atMs] : landings) {
            const auto found = std::ranges::find(track, float(block < 0 ? blocks + block + 1 : block + 1));
            const qint64 landed = found == track.end() ? -1 : found - track.begin();
            QVERIFY2(atMs < 0 ? landed < 0 : std::abs(landed - qint64(atMs * 48)) <= 1,
                qPrintable(u"block %1 at frame %2"_s.arg(block).arg(landed)));
        }
        QTEST(log.lines(u"GlobalTap"_s).filter(u"Filled"_s), "gaps");
    }
};

QTEST_GUILESS_MAIN(AudioTimeline)
#include "tst_audio_timeline.moc"
