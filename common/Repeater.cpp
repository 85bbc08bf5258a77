#include "common/Repeater.h"

Repeater::Repeater(std::shared_ptr<Clock> clock)
    : m_clock(std::move(clock))
{ }

Repeater::~Repeater()
{
    stop();
}

void Repeater::start(std::chrono::milliseconds interval, Step step, int times)
{
    stop();
    m_run = std::make_shared<Run>();
    loop(m_clock, m_run, interval, std::move(step), times);
}

void Repeater::stop()
{
    if (m_run)
        m_run->stopped = true;
    m_run.reset();
}

bool Repeater::isRunning() const
{
    return m_run != nullptr;
}

QCoro::Task<> Repeater::loop(std::shared_ptr<Clock> clock, std::shared_ptr<Run> run,
    std::chrono::milliseconds interval, Step step, int times)
{
    for (int done = 0; times == unbounded || done < times; ++done) {
        co_await clock->sleep(interval);
        if (run->stopped || !step())
            co_return;
    }
}
