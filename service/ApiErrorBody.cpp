#include "service/ApiErrorBody.h"

#include "service/JsonFields.h"

std::optional<ApiErrorBody> ApiErrorBody::fromJson(const QJsonObject &json)
{
    const auto error = JsonFields::string(json, QLatin1String("error"));
    if (!error)
        return std::nullopt;
    return ApiErrorBody { *error };
}

QJsonObject ApiErrorBody::toJson() const
{
    return { { QStringLiteral("error"), error } };
}
