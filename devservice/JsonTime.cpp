#include "JsonTime.h"

#include <QDateTime>

QString JsonTime::text(qint64 msSinceEpoch)
{
    return QDateTime::fromMSecsSinceEpoch(msSinceEpoch, Qt::UTC).toString(Qt::ISODateWithMs);
}

qint64 JsonTime::read(const QJsonObject &object, QLatin1String name)
{
    const QJsonValue value = object.value(name);
    if (value.isString())
        return QDateTime::fromString(value.toString(), Qt::ISODateWithMs).toMSecsSinceEpoch();
    return static_cast<qint64>(object.value(QString(name) + QLatin1String("Ms")).toDouble());
}
