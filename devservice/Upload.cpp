#include "Upload.h"

QJsonObject Upload::toJson() const
{
    return { { QStringLiteral("key"), key }, { QStringLiteral("size"), size },
        { QStringLiteral("contentType"), contentType } };
}

Upload Upload::fromJson(const QJsonObject &object)
{
    return { object.value(QLatin1String("key")).toString(),
        static_cast<qint64>(object.value(QLatin1String("size")).toDouble()),
        object.value(QLatin1String("contentType")).toString() };
}
