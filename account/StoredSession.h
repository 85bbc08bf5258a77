#pragma once

#include "service/SessionPayload.h"

#include <QByteArray>
#include <QMetaType>
#include <QString>

#include <optional>

// The session that links this computer to an account, as kept in the secret store.
// Its JSON form has exactly the keys "id", "profileId", "token" and "isAnonymous";
// the item is meant to be readable by any Secret Service client, so the keys are
// the same as on the wire and nothing else is added.
struct StoredSession
{
    QString id;        // server-side session id, used in the refresh path
    QString profileId; // the account's profile id
    QString token;     // sent as the bare "Authorization" header value
    bool isAnonymous = false;

    // Field for field from the service's answer to a pairing redeem or a refresh.
    [[nodiscard]] static StoredSession from(const SessionPayload &payload);

    [[nodiscard]] QByteArray toJson() const;
    // All four keys are required with their JSON types; unknown keys are ignored.
    // Anything else (not JSON, not an object, a missing or mistyped key) gives nothing.
    [[nodiscard]] static std::optional<StoredSession> fromJson(const QByteArray &json);

    friend bool operator==(const StoredSession &, const StoredSession &) = default;
};

Q_DECLARE_METATYPE(StoredSession)
