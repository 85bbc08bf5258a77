#include "account/StoredSession.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {
const QString idKey = QStringLiteral("id");
const QString profileIdKey = QStringLiteral("profileId");
const QString tokenKey = QStringLiteral("token");
const QString isAnonymousKey = QStringLiteral("isAnonymous");
} // namespace

StoredSession StoredSession::from(const SessionPayload &payload)
{
    return StoredSession{payload.id, payload.profileId, payload.token, payload.isAnonymous};
}

QByteArray StoredSession::toJson() const
{
    const QJsonObject object{
        {idKey, id},
        {profileIdKey, profileId},
        {tokenKey, token},
        {isAnonymousKey, isAnonymous},
    };
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

std::optional<StoredSession> StoredSession::fromJson(const QByteArray &json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const QJsonObject object = document.object();
    const auto id = object.value(idKey);
    const auto profileId = object.value(profileIdKey);
    const auto token = object.value(tokenKey);
    const auto isAnonymous = object.value(isAnonymousKey);
    if (!id.isString() || !profileId.isString() || !token.isString() || !isAnonymous.isBool())
        return std::nullopt;
    return StoredSession{id.toString(), profileId.toString(), token.toString(), isAnonymous.toBool()};
}
