#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMetaType>
#include <QString>

#include <optional>

// The answer to a pairing redeem and to a session refresh, and the session that links
// this computer, kept as it is in the secret store (SessionStore).
struct SessionPayload
{
    QString id; // session id, used verbatim in the refresh path
    QString profileId;
    QString token; // sent bare in "Authorization"
    bool isAnonymous = false;

    // Every member is required and must have its JSON type; unknown members are ignored.
    [[nodiscard]] static std::optional<SessionPayload> fromJson(const QJsonObject &json);
    [[nodiscard]] QJsonObject toJson() const;
    // The compact JSON text of toJson(), the secret-store item's bytes, and its reading.
    [[nodiscard]] QByteArray toJsonText() const;
    [[nodiscard]] static std::optional<SessionPayload> fromJsonText(const QByteArray &text);

    friend bool operator==(const SessionPayload &, const SessionPayload &) = default;
};

Q_DECLARE_METATYPE(SessionPayload)
