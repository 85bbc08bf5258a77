#pragma once

#include <QByteArray>
#include <QDateTime>

#include <chrono>
#include <optional>

// The Retry-After header of an answer: whole seconds, or an HTTP date (in the past
// counts as 0). Nothing when absent or unreadable.
struct RetryAfter
{
    [[nodiscard]] static std::optional<std::chrono::seconds> parse(
        const QByteArray &value, const QDateTime &now);
};
