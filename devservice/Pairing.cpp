#include "Pairing.h"

#include "JsonTime.h"

#include <algorithm>
#include <iterator>

namespace {
const QLatin1String stateNames[]
    = { QLatin1String("pending"), QLatin1String("confirmed"), QLatin1String("redeemed") };
} // namespace

QJsonObject Pairing::toJson() const
{
    return { { QStringLiteral("deviceCode"), deviceCode }, { QStringLiteral("userCode"), userCode },
        { QStringLiteral("device"), device },
        { QStringLiteral("state"), stateNames[static_cast<int>(state)] },
        { QStringLiteral("createdAt"), JsonTime::text(createdAtMs) },
        { QStringLiteral("expiresAt"), JsonTime::text(expiresAtMs) },
        { QStringLiteral("sessionId"), sessionId } };
}

Pairing Pairing::fromJson(const QJsonObject &object)
{
    const QJsonValue stateValue = object.value(QLatin1String("state"));
    const auto named = std::find(std::begin(stateNames), std::end(stateNames), stateValue.toString());
    const int state
        = stateValue.isString() ? static_cast<int>(named - std::begin(stateNames)) : stateValue.toInt();
    return { object.value(QLatin1String("deviceCode")).toString(),
        object.value(QLatin1String("userCode")).toString(), object.value(QLatin1String("device")).toObject(),
        static_cast<State>(std::clamp(state, 0, 2)), JsonTime::read(object, QLatin1String("createdAt")),
        JsonTime::read(object, QLatin1String("expiresAt")),
        object.value(QLatin1String("sessionId")).toString() };
}
