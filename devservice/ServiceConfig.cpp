#include "ServiceConfig.h"

#include <cmath>
#include <limits>

namespace {
// An integral JSON number within [minimum, maximum], or nothing.
bool integerIn(const QJsonValue &value, double minimum, double maximum, qint64 *out)
{
    if (!value.isDouble())
        return false;
    const double number = value.toDouble();
    if (std::trunc(number) != number || number < minimum || number > maximum)
        return false;
    *out = static_cast<qint64>(number);
    return true;
}
} // namespace

QJsonObject ServiceConfig::toJson() const
{
    return { { QStringLiteral("expiresIn"), expiresIn }, { QStringLiteral("interval"), interval },
        { QStringLiteral("maxBodyBytes"), maxBodyBytes },
        { QStringLiteral("maxUploadBytes"), maxUploadBytes },
        { QStringLiteral("uploadUrlTtl"), uploadUrlTtl }, { QStringLiteral("tokenTtl"), tokenTtl } };
}

QString ServiceConfig::apply(const QJsonObject &changes)
{
    constexpr double intMax = std::numeric_limits<int>::max();
    struct Field
    {
        QLatin1String name;
        qint64 ServiceConfig::*member;
        double minimum;
        double maximum;
    };
    const Field fields[] = { { QLatin1String("expiresIn"), &ServiceConfig::expiresIn, 0, intMax },
        { QLatin1String("interval"), &ServiceConfig::interval, 0, intMax },
        { QLatin1String("maxBodyBytes"), &ServiceConfig::maxBodyBytes, 1, 1e15 },
        { QLatin1String("maxUploadBytes"), &ServiceConfig::maxUploadBytes, 0, 1e15 },
        { QLatin1String("uploadUrlTtl"), &ServiceConfig::uploadUrlTtl, -intMax, intMax },
        { QLatin1String("tokenTtl"), &ServiceConfig::tokenTtl, -intMax, intMax } };
    ServiceConfig next = *this;
    for (const Field &field : fields) {
        if (!changes.contains(field.name))
            continue;
        qint64 value = 0;
        if (!integerIn(changes.value(field.name), field.minimum, field.maximum, &value))
            return QStringLiteral("invalid_") + field.name;
        next.*field.member = value;
    }
    *this = next;
    return {};
}
