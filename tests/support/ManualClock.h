#pragma once

#include "common/Clock.h"

#include <QDateTime>
#include <QList>

#include <chrono>
#include <coroutine>

// Time moves only when the test calls advance(). Every sleep is recorded and ends
// once the clock has passed its deadline.
class ManualClock : public Clock
{
public:
    explicit ManualClock(QDateTime start = QDateTime(QDate(2026, 3, 4), QTime(10, 11, 12, 345), Qt::UTC))
        : m_wall(std::move(start))
    { }

    [[nodiscard]] QDateTime now() const override { return m_wall; }
    [[nodiscard]] std::chrono::steady_clock::time_point monotonicNow() const override { return m_monotonic; }

    QCoro::Task<> sleep(std::chrono::milliseconds duration) override
    {
        m_sleeps.append(duration);
        // The flow keeps the clock alive across its sleeps.
        co_await Wait { this, m_monotonic + duration };
    }

    // Moves both clocks on; the sleeps that are due end inside this call, in the
    // order they began (a sleep begun by a woken task waits for the next advance).
    void advance(std::chrono::milliseconds step)
    {
        m_monotonic += step;
        m_wall = m_wall.addMSecs(step.count());
        QList<std::coroutine_handle<>> due;
        for (auto it = m_waiting.begin(); it != m_waiting.end();) {
            if (it->first <= m_monotonic) {
                due.append(it->second);
                it = m_waiting.erase(it);
            } else {
                ++it;
            }
        }
        for (const auto handle : due)
            handle.resume();
    }

    // In 500 ms steps, so that the display clock ticks as it would in real time.
    void advanceInTicks(std::chrono::milliseconds total)
    {
        const std::chrono::milliseconds tick(500);
        for (std::chrono::milliseconds done(0); done < total; done += tick)
            advance(std::min(tick, total - done));
    }

    [[nodiscard]] int sleepsOf(std::chrono::milliseconds duration) const
    {
        return int(m_sleeps.count(duration));
    }

private:
    // Resumed directly by advance(), not through the event loop, so a test sees the
    // effect of a tick as soon as advance() returns.
    struct Wait
    {
        ManualClock *clock;
        std::chrono::steady_clock::time_point deadline;
        bool await_ready() const noexcept { return clock->m_monotonic >= deadline; }
        void await_suspend(std::coroutine_handle<> handle) { clock->m_waiting.append({ deadline, handle }); }
        void await_resume() const noexcept { }
    };

    QList<std::pair<std::chrono::steady_clock::time_point, std::coroutine_handle<>>> m_waiting;
    QDateTime m_wall;
    std::chrono::steady_clock::time_point m_monotonic { std::chrono::hours(1) };
    QList<std::chrono::milliseconds> m_sleeps;
};
