#include "service/SessionPayload.h"

#include "service/JsonFields.h"

#include <QJsonDocument>

std::optional<SessionPayload> SessionPayload::fromJson(const QJsonObject &json)
{
    const auto id = JsonFields::string(json, QLatin1String("id"));
    const auto profileId = JsonFields::string(json, QLatin1String("profileId"));
    const auto token = JsonFields::string(json, QLatin1String("token"));
    const auto isAnonymous = JsonFields::boolean(json, QLatin1String("isAnonymous"));
    if (!id || !profileId || !token || !isAnonymous)
        return std::nullopt;
    return SessionPayload { *id, *profileId, *token, *isAnonymous };
}

QJsonObject SessionPayload::toJson() const
{
    return { { QStringLiteral("id"), id }, { QStringLiteral("profileId"), profileId },
        { QStringLiteral("token"), token }, { QStringLiteral("isAnonymous"), isAnonymous } };
}

QByteArray SessionPayload::toJsonText() const
{
    return QJsonDocument(toJson()).toJson(QJsonDocument::Compact);
}

std::optional<SessionPayload> SessionPayload::fromJsonText(const QByteArray &text)
{
    const QJsonDocument document = QJsonDocument::fromJson(text);
    if (!document.isObject())
        return std::nullopt;
    return fromJson(document.object());
}
