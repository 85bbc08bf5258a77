#include "service/PairingStart.h"

#include "service/JsonFields.h"

std::optional<PairingStart> PairingStart::fromJson(const QJsonObject &json)
{
    const auto deviceCode = JsonFields::string(json, QLatin1String("deviceCode"));
    const auto userCode = JsonFields::string(json, QLatin1String("userCode"));
    const auto expiresIn = JsonFields::integer(json, QLatin1String("expiresIn"));
    const auto interval = JsonFields::integer(json, QLatin1String("interval"));
    if (!deviceCode || !userCode || !expiresIn || !interval)
        return std::nullopt;
    return PairingStart { *deviceCode, *userCode, *expiresIn, *interval };
}

QJsonObject PairingStart::toJson() const
{
    return { { QStringLiteral("deviceCode"), deviceCode }, { QStringLiteral("userCode"), userCode },
        { QStringLiteral("expiresIn"), expiresIn }, { QStringLiteral("interval"), interval } };
}
