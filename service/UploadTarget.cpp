#include "service/UploadTarget.h"

#include "service/JsonFields.h"

std::optional<UploadTarget> UploadTarget::fromJson(const QJsonObject &json)
{
    const auto url = JsonFields::string(json, QLatin1String("url"));
    const auto key = JsonFields::string(json, QLatin1String("key"));
    if (!url || !key)
        return std::nullopt;
    return UploadTarget { *url, *key };
}

QJsonObject UploadTarget::toJson() const
{
    return { { QStringLiteral("url"), url }, { QStringLiteral("key"), key } };
}
