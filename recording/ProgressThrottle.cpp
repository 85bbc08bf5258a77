#include "recording/ProgressThrottle.h"

#include <algorithm>

std::optional<int> ProgressThrottle::take(
    qint64 sent, qint64 total, std::chrono::steady_clock::time_point now)
{
    if (total <= 0)
        return std::nullopt;
    const int share = static_cast<int>(std::clamp<qint64>(sent * 100 / total, 0, 100));
    if (share <= m_shown || untilNext(now) > std::chrono::milliseconds(0))
        return std::nullopt;
    m_shown = share;
    m_shownAt = now;
    return share;
}

std::chrono::milliseconds ProgressThrottle::untilNext(std::chrono::steady_clock::time_point now) const
{
    if (m_shown < 0)
        return std::chrono::milliseconds(0);
    const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(now - m_shownAt);
    return std::max(interval - passed, std::chrono::milliseconds(0));
}
