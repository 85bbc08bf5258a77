#include "recording/SendRetry.h"

#include <QRandomGenerator>

#include <algorithm>
#include <array>
#include <cmath>

namespace {

constexpr std::array<std::chrono::milliseconds, 3> intervals { std::chrono::seconds(5),
    std::chrono::seconds(30), std::chrono::minutes(2) };

} // namespace

SendRetry::SendRetry(Jitter jitter)
    : m_jitter(
        jitter ? std::move(jitter) : Jitter([] { return QRandomGenerator::global()->generateDouble(); }))
{ }

bool SendRetry::canFix(const ApiError &error)
{
    switch (error.kind()) {
    case ApiError::Kind::transport:
        // The recording's own file missing or unreadable is not the network's fault.
        return error.networkError() != QNetworkReply::ContentNotFoundError
            && error.networkError() != QNetworkReply::ContentAccessDenied;
    case ApiError::Kind::http:
        return error.status() == 408 || error.status() == 429 || error.status() >= 500;
    case ApiError::Kind::badResponse:
        return false;
    }
    return false;
}

std::chrono::milliseconds SendRetry::waitBefore(int next, const ApiError &error) const
{
    if (const auto asked = error.retryAfter())
        return std::min<std::chrono::milliseconds>(*asked, longestRetryAfter);
    const auto index = static_cast<std::size_t>(std::clamp(next - 2, 0, int(intervals.size()) - 1));
    const double stretch = 0.8 + 0.4 * m_jitter();
    return std::chrono::milliseconds(std::llround(double(intervals.at(index).count()) * stretch));
}
