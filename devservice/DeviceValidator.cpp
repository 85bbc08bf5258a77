#include "DeviceValidator.h"

#include <QJsonObject>

#include <algorithm>
#include <iterator>

QString DeviceValidator::check(const QJsonValue &device)
{
    if (device.isUndefined())
        return QStringLiteral("missing_device");
    if (!device.isObject())
        return QStringLiteral("invalid_device");
    const QLatin1String members[] = { QLatin1String("vendorUuid"), QLatin1String("appVersion"),
        QLatin1String("osVersion"), QLatin1String("type"), QLatin1String("brand"), QLatin1String("model"),
        QLatin1String("locale") };
    const QJsonObject object = device.toObject();
    for (const QLatin1String member : members) {
        const QJsonValue value = object.value(member);
        if (value.isUndefined())
            return QStringLiteral("missing_device.") + member;
        if (!value.isString())
            return QStringLiteral("invalid_device.") + member;
    }
    for (const QString &name : object.keys()) {
        if (std::find(std::begin(members), std::end(members), name) == std::end(members))
            return QStringLiteral("unexpected_device.") + name;
    }
    return {};
}
