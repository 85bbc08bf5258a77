#include "service/JsonFields.h"

#include <QJsonValue>

#include <limits>

std::optional<QString> JsonFields::string(const QJsonObject &json, QLatin1String key)
{
    const QJsonValue value = json.value(key);
    if (!value.isString())
        return std::nullopt;
    return value.toString();
}

std::optional<bool> JsonFields::boolean(const QJsonObject &json, QLatin1String key)
{
    const QJsonValue value = json.value(key);
    if (!value.isBool())
        return std::nullopt;
    return value.toBool();
}

std::optional<int> JsonFields::integer(const QJsonObject &json, QLatin1String key)
{
    const QJsonValue value = json.value(key);
    if (!value.isDouble())
        return std::nullopt;
    // toInteger() falls back to the default for fractions and for values beyond qint64;
    // two different fallbacks tell a real number from the fallback.
    const qint64 a = value.toInteger(std::numeric_limits<qint64>::min());
    const qint64 b = value.toInteger(std::numeric_limits<qint64>::max());
    if (a != b || a < std::numeric_limits<int>::min() || a > std::numeric_limits<int>::max())
        return std::nullopt;
    return static_cast<int>(a);
}
