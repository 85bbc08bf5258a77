#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

// Strict reads of one member of a JSON object, as the wire records need them: a
// member that is missing or of another JSON type gives nothing, never a default.
namespace JsonFields {
[[nodiscard]] std::optional<QString> string(const QJsonObject &json, QLatin1String key);
[[nodiscard]] std::optional<bool> boolean(const QJsonObject &json, QLatin1String key);
// A JSON number that is a whole number within int's range.
[[nodiscard]] std::optional<int> integer(const QJsonObject &json, QLatin1String key);
} // namespace JsonFields
