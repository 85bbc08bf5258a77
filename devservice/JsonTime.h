#pragma once

#include <QJsonObject>
#include <QLatin1String>
#include <QString>

// Times in the records' JSON: ISO 8601 in UTC with milliseconds, which is all a
// record keeps, so writing and reading back loses nothing.
namespace JsonTime {
[[nodiscard]] QString text(qint64 msSinceEpoch);
// The time under `name`; a state file from before the records shared one shape
// kept milliseconds under `name` + "Ms", which is read as well.
[[nodiscard]] qint64 read(const QJsonObject &object, QLatin1String name);
} // namespace JsonTime
