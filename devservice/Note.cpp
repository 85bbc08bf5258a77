#include "Note.h"

#include "JsonTime.h"

QJsonObject Note::toJson() const
{
    return { { QStringLiteral("id"), id }, { QStringLiteral("body"), body },
        { QStringLiteral("recordingKey"), recordingKey }, { QStringLiteral("accountId"), accountId },
        { QStringLiteral("createdAt"), JsonTime::text(createdAtMs) } };
}

Note Note::fromJson(const QJsonObject &object)
{
    return { object.value(QLatin1String("id")).toString(), object.value(QLatin1String("body")).toObject(),
        object.value(QLatin1String("recordingKey")).toString(),
        object.value(QLatin1String("accountId")).toString(),
        JsonTime::read(object, QLatin1String("createdAt")) };
}
