#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

// The answer to a pairing redeem and to a session refresh.
struct SessionPayload
{
    QString id;        // session id, used verbatim in the refresh path
    QString profileId;
    QString token;     // sent bare in "Authorization"
    bool isAnonymous = false;

    // Every member is required and must have its JSON type; unknown members are ignored.
    [[nodiscard]] static std::optional<SessionPayload> fromJson(const QJsonObject &json);
    [[nodiscard]] QJsonObject toJson() const;

    friend bool operator==(const SessionPayload &, const SessionPayload &) = default;
};
