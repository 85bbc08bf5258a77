#include "Session.h"

#include "JsonTime.h"

QJsonObject Session::toJson() const
{
    QJsonObject object = payload();
    object.insert(QStringLiteral("accountId"), accountId);
    object.insert(QStringLiteral("device"), device);
    object.insert(QStringLiteral("createdAt"), JsonTime::text(createdAtMs));
    return object;
}

QJsonObject Session::payload() const
{
    return { { QStringLiteral("id"), id }, { QStringLiteral("profileId"), profileId },
        { QStringLiteral("token"), QString::fromLatin1(token) },
        { QStringLiteral("isAnonymous"), anonymous } };
}

Session Session::fromJson(const QJsonObject &object)
{
    const QJsonValue anonymous = object.value(QLatin1String("isAnonymous"));
    return { object.value(QLatin1String("id")).toString(),
        object.value(QLatin1String("accountId")).toString(),
        object.value(QLatin1String("profileId")).toString(),
        (anonymous.isUndefined() ? object.value(QLatin1String("anonymous")) : anonymous).toBool(),
        object.value(QLatin1String("token")).toString().toLatin1(),
        object.value(QLatin1String("device")).toObject(),
        JsonTime::read(object, QLatin1String("createdAt")) };
}
