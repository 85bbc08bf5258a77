#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

// The body the service sends with a failure status: {"error": "<code>"}.
struct ApiErrorBody
{
    QString error;

    // Nothing unless "error" is present and a string.
    [[nodiscard]] static std::optional<ApiErrorBody> fromJson(const QJsonObject &json);
    [[nodiscard]] QJsonObject toJson() const;

    friend bool operator==(const ApiErrorBody &, const ApiErrorBody &) = default;
};
