#pragma once

#include "common/Clock.h"

#include <qcoro/qcorotask.h>

#include <chrono>
#include <functional>
#include <memory>

// Calls a step again and again on the clock: the display clock, the level meters, a
// bounded poll. One run at a time: start() stops the run before it, and stop() or
// the repeater's destruction stops the current one. A stopped run never calls its
// step again, so a step may use its owner freely as long as the owner holds the
// repeater.
//
// Main thread only, like the clock. The run's coroutine keeps the clock alive across
// its sleeps; a run stopped while it sleeps ends when the sleep does.
class Repeater
{
public:
    // The step says whether to go on.
    using Step = std::function<bool()>;
    static constexpr int unbounded = -1;

    explicit Repeater(std::shared_ptr<Clock> clock);
    ~Repeater();
    Repeater(const Repeater &) = delete;
    Repeater &operator=(const Repeater &) = delete;

    // Calls `step` every `interval`, first after one interval, until it returns false,
    // `times` calls were made, or the run is stopped.
    void start(std::chrono::milliseconds interval, Step step, int times = unbounded);
    void stop();
    [[nodiscard]] bool isRunning() const;

private:
    struct Run
    {
        bool stopped = false;
    };
    static QCoro::Task<> loop(std::shared_ptr<Clock> clock, std::shared_ptr<Run> run,
        std::chrono::milliseconds interval, Step step, int times);

    std::shared_ptr<Clock> m_clock;
    std::shared_ptr<Run> m_run;
};
