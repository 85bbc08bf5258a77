#include "app/UpdateFeed.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

std::optional<UpdateFeed> UpdateFeed::parse(const QByteArray &json)
{
    const QJsonDocument document = QJsonDocument::fromJson(json);
    if (!document.isObject())
        return std::nullopt;
    const QJsonObject object = document.object();
    const QJsonValue version = object.value(QLatin1String("version"));
    const QJsonValue build = object.value(QLatin1String("build"));
    const QJsonValue url = object.value(QLatin1String("url"));
    if (!version.isString() || !build.isDouble() || !url.isString())
        return std::nullopt;
    const double number = build.toDouble();
    if (number < 1 || number > 9007199254740992.0 || std::trunc(number) != number)
        return std::nullopt;
    UpdateFeed feed { version.toString(), static_cast<qint64>(number),
        QUrl(url.toString(), QUrl::StrictMode) };
    const QString scheme = feed.url.scheme();
    if (!feed.url.isValid() || feed.url.host().isEmpty()
        || (scheme != QLatin1String("https") && scheme != QLatin1String("http")))
        return std::nullopt;
    return feed;
}
