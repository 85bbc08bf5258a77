// The one loop on the clock, on a hand-moved clock: how often it calls its step, and
// that a stopped or replaced run never calls it again.
#include "common/Repeater.h"
#include "support/ManualClock.h"

#include <QTest>

using namespace std::chrono_literals;

class TestCommonRepeater : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void callsItsStepUntilStopped()
    {
        const auto clock = std::make_shared<ManualClock>();
        QList<char> calls;
        const auto step = [&calls](char run, int until) {
            return [&calls, run, until] {
                calls << run;
                return calls.count(run) < until;
            };
        };
        const auto ticks = [&clock](int count) {
            for (int i = 0; i < count; ++i)
                clock->advance(10ms);
        };
        {
            Repeater repeater(clock);
            repeater.start(10ms, step('a', 100));
            ticks(2);
            repeater.start(10ms, step('b', 2)); // a newer run stops the older one
            ticks(5); // b says stop after two calls
            repeater.start(10ms, step('c', 100), 3); // at most three calls
            ticks(5);
            repeater.start(10ms, step('d', 100));
            repeater.stop();
            ticks(1);
            repeater.start(10ms, step('e', 100));
        }
        ticks(5); // destroyed: stopped
        QCOMPARE(calls, (QList<char> { 'a', 'a', 'b', 'b', 'c', 'c', 'c' }));
    }
};

QTEST_GUILESS_MAIN(TestCommonRepeater)
#include "tst_common_repeater.moc"
