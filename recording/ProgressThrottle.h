#pragma once

#include <QtGlobal>

#include <chrono>
#include <optional>

// The share of an upload worth showing: a whole percentage, only when it is higher
// than the one shown last and at least `interval` after it, so the status line and
// the bar change at most ten times a second however often the network stack reports.
// The end (100 %) keeps the rule too: whoever shows it waits untilNext() first.
class ProgressThrottle
{
public:
    static constexpr std::chrono::milliseconds interval { 100 };

    [[nodiscard]] std::optional<int> take(
        qint64 sent, qint64 total, std::chrono::steady_clock::time_point now);
    // The share shown last; -1 before the first.
    [[nodiscard]] int shown() const { return m_shown; }
    // How long from `now` until a change may be shown.
    [[nodiscard]] std::chrono::milliseconds untilNext(std::chrono::steady_clock::time_point now) const;

private:
    int m_shown = -1;
    std::chrono::steady_clock::time_point m_shownAt;
};
